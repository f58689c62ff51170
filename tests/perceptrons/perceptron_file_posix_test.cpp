// Streams that fill up in the middle of a network.
#include "perceptrons/perceptrons.h"
#include "support/reports.h"

#include <cstdio>

using namespace perceptrons;

namespace {

void writeTo(FILE* f, sMLPServer* server) {
    KTsWriteMLPServer(f, server);
}
void writeTo(FILE* f, wMLPServer* server) {
    KTwWriteMLPServer(f, server);
}

// The status that writing reports on a stream with this much room; 0 without a report.
template <class T>
int statusWithRoom(std::size_t room) {
    std::mt19937 random(1);
    const Server<T> server = randomNetwork<T>(random, {3, 5, 2}, 1000).server();
    std::vector<char> memory(room + 1);
    FILE* stream = fmemopen(memory.data(), room, "wb");
    std::setvbuf(stream, nullptr, _IONBF, 0);
    support::CapturedReports reports;
    writeTo(stream, server.get());
    std::fclose(stream);
    if (reports.count() == 0) return 0;
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].message, "input_output_error");
    EXPECT_EQ(reports[0].function,
              (std::is_same_v<T, float>) ? "KTsWriteMLPServer" : "KTwWriteMLPServer");
    EXPECT_EQ(reports[0].source, module);
    return reports[0].status;
}

} // namespace

// Header, 12 bytes of counts, (4 * 5 + 8 * 2) weights.
TEST(FullStreams, AreReportedByWhatDidNotFit) {
    EXPECT_EQ(statusWithRoom<float>(59), KT_StsNoMem);
    EXPECT_EQ(statusWithRoom<float>(60), KT_StsNoMem);
    EXPECT_EQ(statusWithRoom<float>(71), KT_StsNoMem);
    EXPECT_EQ(statusWithRoom<float>(72), KT_StsBadState);
    EXPECT_EQ(statusWithRoom<float>(60 + 12 + 36 * 4 - 1), KT_StsBadState);
    EXPECT_EQ(statusWithRoom<float>(60 + 12 + 36 * 4), 0);
    EXPECT_EQ(statusWithRoom<short>(63), KT_StsNoMem);
    EXPECT_EQ(statusWithRoom<short>(64), KT_StsNoMem);
    EXPECT_EQ(statusWithRoom<short>(76), KT_StsBadState);
    EXPECT_EQ(statusWithRoom<short>(64 + 12 + 36 * 2 - 1), KT_StsBadState);
    EXPECT_EQ(statusWithRoom<short>(64 + 12 + 36 * 2), 0);
}
