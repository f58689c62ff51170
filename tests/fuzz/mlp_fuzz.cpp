// The readers of perceptron files, float and fixed; what they accept is written and released.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::onStream(data, size, [](FILE* stream) {
        while (sMLPServer* server = KTsReadMLPServer(stream)) {
            KTsWriteMLPServer(fuzz::sink(), server);
            KTsFreeMLPServer(server);
        }
    });
    return fuzz::onStream(data, size, [](FILE* stream) {
        while (wMLPServer* server = KTwReadMLPServer(stream)) {
            KTwWriteMLPServer(fuzz::sink(), server);
            KTwFreeMLPServer(server);
        }
    });
}
