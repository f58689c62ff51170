// What a report's handler may do in the middle of an operation: release what the thread keeps,
// clear the status, or call the same operation again. The operation that has failed touches nothing
// afterwards that may be gone, and the thread's record stays sound.
#include "ktlp6.h"
#include "support/alloc_faults.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

// What the handler does, once for each failing call; reports that come meanwhile are passed over.
std::function<void()> reaction;
int reports = 0;
bool reacting = false;

int react(int status, const char*, const char*, const char*, int) {
    ++reports;
    if (!reacting) {
        reacting = true;
        reaction();
        reacting = false;
    }
    return status;
}

void releaseAll() {
    KTFreePreemphasizeTbls();
    KTFreeCepsTbls();
    KTFreeLPTbls();
    KTSetStatus(KT_StsOk);
}

struct Operation {
    const char* name;
    std::function<void()> call; // writes its result, if any, over the words below
};

// Inputs and results of all operations; 99 stands in results that were not written.
struct Data {
    std::vector<float> samples = std::vector<float>(256), floats = std::vector<float>(256, 99.0f);
    std::vector<short> words = std::vector<short>(256), shorts = std::vector<short>(256, 99);
    KTMFCCFilters* bank = KTsMFCCInit(8, 20, 100, 3900, 8000, 0, 0);

    Data() {
        for (std::size_t i = 0; i < samples.size(); ++i)
            words[i] = short(samples[i] = float((i * 37 + i * i) % 101) - 50.0f);
    }
    ~Data() { KTsFreeMFCCFilters(bank); }
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    bool unwritten() const {
        return floats == std::vector<float>(256, 99.0f) && shorts == std::vector<short>(256, 99);
    }
    void reset() {
        floats.assign(256, 99.0f);
        shorts.assign(256, 99);
    }
};

// Operations whose results stay unwritten when memory runs out, with arguments that need every
// buffer.
std::vector<Operation> operationsOn(Data& d) {
    const float few[] = {0.5f, -0.2f, 0.1f, 0.05f, 0.02f};
    const std::vector<float> a(few, few + 5);
    const std::vector<short> w = {500, -200, 100, 50, 20, 10, 5, 4, 3, 2,
                                  1,   1,    1,   1,  1,  1,  1, 1, 1, 1};
    return {
        {"KTwPreemphasize",
         [&d] {
             std::vector<short> own(d.words);
             KTwPreemphasize(own.data(), -0.5f, 256, KT_NoScale, nullptr);
             if (own != d.words) d.shorts = own;
         }},
        {"KTsCepstralMFCC",
         [&d] {
             KTsCepstralMFCC(d.bank, d.samples.data(), d.floats.data(), 13, 1, KT_CepsTimeInput);
         }},
        {"KTwCepstralMFCC",
         [&d] {
             KTwCepstralMFCC(d.bank, d.words.data(), d.shorts.data(), 13, 1, KT_CepsTimeInput, 0,
                             KT_AutoScale, nullptr);
         }},
        {"KTsLPredict",
         [&d] { KTsLPredict(d.samples.data(), 256, d.floats.data(), 10, KT_LPAutocorr); }},
        {"KTsLPredict",
         [&d] { KTsLPredict(d.samples.data(), 256, d.floats.data(), 10, KT_LPCovariance); }},
        {"KTsLPSpectrum", [&d, a] { KTsLPSpectrum(a.data(), 5, d.floats.data(), 5, 1.0f); }},
        {"KTwLPSpectrum",
         [&d, w] {
             KTwLPSpectrum(w.data(), 5, d.shorts.data(), 5, 1.0f, -10, KT_AutoScale, nullptr);
         }},
        {"KTwLPSpectrum",
         [&d, w] {
             KTwLPSpectrum(w.data(), 20, d.shorts.data(), 5, 1.0f, -10, KT_AutoScale, nullptr);
         }},
    };
}

class Handlers : public testing::Test {
protected:
    void SetUp() override {
        previous = KTRedirectError(react);
        KTSetErrMode(KT_ErrorModeParent);
        KTSetStatus(KT_StsOk);
    }
    void TearDown() override {
        releaseAll();
        KTRedirectError(previous);
        KTSetErrMode(KT_ErrorModeLeaf);
    }
    KTErrorHandler previous = nullptr;
};

// Nothing is kept but the kernels' tables of the transforms to come: exhaustion there ends the
// process.
void keepKernelTables(Data& data) {
    releaseAll();
    KTsCepstralMFCC(data.bank, data.samples.data(), data.floats.data(), 1, 1, KT_CepsTimeInput);
    for (int order : {4, 5})
        KTsLPSpectrum(data.samples.data() + 100, 25, data.floats.data(), order, 1.0f);
    data.reset();
}

TEST_F(Handlers, MayReleaseEverythingAndClearTheStatus) {
    Data data;
    for (const Operation& operation : operationsOn(data)) {
        for (int failAt = 1; failAt < 10; ++failAt) {
            SCOPED_TRACE(operation.name + std::string(" ") + std::to_string(failAt));
            keepKernelTables(data);
            reaction = releaseAll;
            reports = 0;
            support::alloc::arm(failAt);
            operation.call();
            const bool failed = support::alloc::failed();
            support::alloc::disarm();
            if (!failed || reports == 0) break;
            EXPECT_TRUE(data.unwritten());
            KTSetStatus(KT_StsOk);
            reports = 0;
            operation.call();
            EXPECT_EQ(reports, 0);
            EXPECT_FALSE(data.unwritten());
        }
    }
}

TEST_F(Handlers, MayCallTheSameOperationAgain) {
    Data data;
    for (const Operation& operation : operationsOn(data)) {
        for (int failAt = 1; failAt < 10; ++failAt) {
            SCOPED_TRACE(operation.name + std::string(" ") + std::to_string(failAt));
            releaseAll();
            const long before = support::alloc::liveBlocks();
            keepKernelTables(data);
            reaction = [&] {
                KTSetStatus(KT_StsOk);
                operation.call();
            };
            reports = 0;
            support::alloc::arm(failAt);
            operation.call();
            const bool failed = support::alloc::failed();
            support::alloc::disarm();
            KTSetStatus(KT_StsOk);
            data.reset();
            operation.call();
            EXPECT_FALSE(data.unwritten());
            releaseAll();
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            if (!failed || reports == 0) break;
        }
    }
}

// A standing status is told once more at the end of a cepstrum; the handler may release there, too.
TEST_F(Handlers, MayReleaseAtTheBacktraceOfAFixedCepstrum) {
    Data data;
    for (int flags : {0, KT_CepsTimeInput}) {
        reaction = releaseAll;
        KTSetStatus(KT_StsBadArg);
        KTwCepstralMFCC(data.bank, data.words.data(), data.shorts.data(), 13, 1,
                        flags | KT_CepsThreshold, 0, KT_AutoScale, nullptr);
        EXPECT_TRUE(data.unwritten());
    }
}

} // namespace
