// What a report's handler may do in the middle of an operation on a network: free the network, and
// close the stream. Under the address sanitizer the operation is seen to touch neither afterwards.
#include "perceptrons/perceptrons.h"
#include "support/alloc_faults.h"
#include "support/streams.h"

#include <functional>

using namespace perceptrons;

namespace {

std::function<void()> reaction;
int reports = 0;

// Reacts to the first report of a call only.
int react(int status, const char*, const char*, const char*, int) {
    if (++reports == 1) reaction();
    KTSetStatus(KT_StsOk);
    return status;
}

class PerceptronHandlers : public testing::Test {
protected:
    void SetUp() override {
        previous = KTRedirectError(react);
        KTSetErrMode(KT_ErrorModeParent);
    }
    void TearDown() override {
        KTRedirectError(previous);
        KTSetErrMode(KT_ErrorModeLeaf);
        KTSetStatus(KT_StsOk);
    }
    KTErrorHandler previous = nullptr;
};

// Calls `operation` with the n-th allocation failing, n = 1, 2, ..., each time on a new server that
// the handler frees. The number of calls in which one failed, of which one may go unnoticed: that
// of a server's second buffer.
template <class T, class Operation>
int failEachOnDoomed(Network<T> network, const Operation& operation) {
    int unnoticed = 0;
    for (int n = 1;; ++n) {
        Server<T> server = network.server();
        auto* const record = server.get();
        reaction = [&] { server.reset(); };
        reports = 0;
        support::alloc::arm(n);
        operation(record);
        const bool failed = support::alloc::failed();
        support::alloc::disarm();
        if (!failed) return n - 1;
        EXPECT_EQ(server == nullptr, reports > 0);
        unnoticed += reports == 0;
        EXPECT_LE(unnoticed, 1);
    }
}

TEST_F(PerceptronHandlers, MayFreeTheNetworkThatIsEvaluated) {
    std::mt19937 random(1);
    const float input[3] = {1, 2, 3};
    float output[2];
    EXPECT_EQ(failEachOnDoomed(
                  randomNetwork<float>(random, {3, 5, 2}, 1).describedAsSparse(),
                  [&](sMLPServer* server) { KTsEvalMLPFeedForward(server, input, 3, output, 2); }),
              3);
}

TEST_F(PerceptronHandlers, MayFreeTheNetworkThatIsTrained) {
    std::mt19937 random(2);
    const float pattern[3] = {1, 2, 3};
    const float* inputs[] = {pattern};
    int epochs = -1;
    const int failures =
        failEachOnDoomed(randomNetwork<float>(random, {3, 5, 3}, 1), [&](sMLPServer* server) {
            epochs = -1;
            KTsTrainMLPBackPropagation(server, inputs, 1, 3, inputs, 3, 0.1f, 2, 0, 0.5f, &epochs);
        });
    EXPECT_GT(failures, 6);
    EXPECT_EQ(epochs, 2); // of the run that nothing stopped
}

TEST_F(PerceptronHandlers, MayFreeASparseNetworkThatIsRefused) {
    std::mt19937 random(3);
    Network<float> network = randomNetwork<float>(random, {3, 2}, 1).describedAsSparse();
    const support::Stream stream(std::tmpfile());
    int epochs = -1;
    for (bool training : {true, false}) {
        Server<float> server = network.server();
        reaction = [&] { server.reset(); };
        reports = 0;
        if (training)
            KTsTrainMLPBackPropagation(server.get(), nullptr, 0, 3, nullptr, 2, 0, 1, 0, 0,
                                       &epochs);
        else
            KTsWriteMLPServer(stream.get(), server.get());
        EXPECT_EQ(reports, 1);
        EXPECT_EQ(server, nullptr);
    }
    EXPECT_EQ(epochs, -1);
}

// A stream that was opened for reading takes nothing.
TEST_F(PerceptronHandlers, MayFreeTheNetworkThatIsWrittenAndCloseItsStream) {
    std::mt19937 random(4);
    const Network<float> network = randomNetwork<float>(random, {3, 2}, 1);
    Server<float> server = Network<float>(network).server();
    support::Stream stream(std::fopen(KTL_SOURCE_DIR "/README.md", "rb"));
    ASSERT_TRUE(stream);
    reaction = [&] {
        server.reset();
        stream.reset();
    };
    reports = 0;
    KTsWriteMLPServer(stream.get(), server.get());
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(server, nullptr);
}

// A file that ends in the middle, one without a function, and memory that runs out.
TEST_F(PerceptronHandlers, MayCloseTheStreamThatIsRead) {
    std::mt19937 random(5);
    const Server<float> server = randomNetwork<float>(random, {3, 2}, 1).server();
    support::Stream whole(std::tmpfile());
    KTsWriteMLPServer(whole.get(), server.get());
    const support::Bytes bytes = support::contentsOf(whole.get());
    ASSERT_EQ(bytes.size(), 60u + 8u + 32u);
    for (std::size_t length = 60; length <= bytes.size(); ++length) {
        support::Bytes part(bytes.begin(), bytes.begin() + std::ptrdiff_t(length));
        // no flag that names a function
        if (length == bytes.size()) support::setWordAt(part, 20, 0);
        support::Stream stream = support::streamOf(part);
        reaction = [&] { stream.reset(); };
        reports = 0;
        EXPECT_EQ(KTsReadMLPServer(stream.get()), nullptr);
        EXPECT_EQ(reports, 1) << length;
    }
    for (int failAt = 1; failAt < 4; ++failAt) {
        support::Stream stream = support::streamOf(bytes);
        reaction = [&] { stream.reset(); };
        reports = 0;
        support::alloc::arm(failAt);
        EXPECT_EQ(KTsReadMLPServer(stream.get()), nullptr);
        support::alloc::disarm();
        EXPECT_GE(reports, 1) << failAt;
    }
}

} // namespace
