// A report's handler that cleans up: it releases everything that an operation may have in use, the
// caller's objects as well as all that the library keeps for the thread, and may put other objects
// into the places that became free. Whatever operation made the report, nothing of it may touch
// what is gone (the address sanitizer tells) or change what is new.
#pragma once

#include "ktlp6.h"
#include "models/model.h"
#include "quantisers/density_codebook.h"
#include "support/alloc_faults.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace support {

enum class Manner {
    releases, // and leaves it at that
    replaces, // makes others afterwards: models under the lowest ids, a codebook, patterns
    forgives  // makes others, and sets the status to 0 as if nothing had happened
};
inline constexpr Manner allManners[] = {Manner::releases, Manner::replaces, Manner::forgives};

// One operation under such a handler. Begins and ends with nothing that the library keeps for the
// thread.
class Scene {
public:
    // The handler cleans up at report number `actAt`, counted from 1, and answers
    // `answerOfHandler`.
    explicit Scene(Manner mannerOfHandler, int actAt = 1, int answerOfHandler = 0)
        : manner(mannerOfHandler), acting(actAt), answer(answerOfHandler) {
        releaseAll();
        current() = this;
        previousHandler = KTRedirectError(handle);
        previousMode = KTGetErrMode();
        KTSetErrMode(KT_ErrorModeParent);
        KTSetStatus(KT_StsOk);
        blocksBefore = alloc::liveBlocks();
    }
    ~Scene() {
        releaseMine();
        releaseAll();
        KTSetStatus(KT_StsOk);
        KTRedirectError(previousHandler);
        KTSetErrMode(previousMode);
        current() = nullptr;
        EXPECT_EQ(alloc::liveBlocks(), blocksBefore) << "something was lost or released twice";
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    // An object of the caller's, which the handler releases if it comes to that, and run()
    // otherwise.
    void mine(std::function<void()> release) { owned.push_back(std::move(release)); }

    // Runs the operation, its allocation number `failAt` failing where that is not 0.
    template <class Operation>
    auto run(Operation operation) {
        alloc::arm(failAt);
        auto result = operation();
        allocationFailed = alloc::failed();
        alloc::disarm();
        expectOthersUnchanged();
        releaseMine();
        return result;
    }

    bool acted() const { return count >= acting; }
    int reports() const { return count; }

    int failAt = 0;
    bool allocationFailed = false;

private:
    // What the handler puts into the free places: models that differ from all that the tests make.
    static constexpr int nOthers = 5, nStates = 2, nQuant = 7, scale = -12, nDensities = 3;
    static constexpr short step = 300;

    static Scene*& current() {
        static Scene* scene = nullptr;
        return scene;
    }
    static int handle(int, const char*, const char*, const char*, int) {
        return current()->report();
    }

    int report() {
        if (++count != acting) return answer;
        alloc::disarm();
        const int status = KTGetStatus();
        releaseMine();
        releaseAll();
        KTSetStatus(KT_StsOk);
        if (manner != Manner::releases) makeOthers();
        if (manner != Manner::forgives) KTSetStatus(status);
        return answer;
    }

    void releaseMine() {
        for (const auto& release : owned)
            release();
        owned.clear();
    }
    static void releaseAll() {
        KTHMMFreeAll();
        KTsPatternFreeAll();
        KTwPatternFreeAll();
        KTFreePreemphasizeTbls();
        KTFreeLPTbls();
        KTFreeCepsTbls();
        KTFreeGaussTbls();
    }

    void makeOthers() {
        short row[nQuant] = {1, 2, 3, 4, 5, 6, 7}, weights[] = {9000, 8000};
        short *means[] = {row, row}, *diagonals[] = {row, row};
        GaussMixServer* mixture =
            KTwInitGaussMixServer(weights, means, nullptr, diagonals, nQuant, 2, 0, -13);
        GaussMixServer* mixtures[nDensities] = {mixture, mixture, mixture};
        const short transitions[] = {step, step}, *rows[] = {transitions, transitions};
        for (int k = 0; k < nOthers; ++k)
            others.push_back(KTwInitContHMMServer(rows, transitions, mixtures, nStates, nQuant,
                                                  KT_HMM_LOGARITHMIC, scale));
        KTwInitSemicontCodebook(mixtures, nDensities, nQuant, 0);
        makeFloatCodebook();
        KTsFreeGaussMixServer(mixture);
        makePatterns();
        cost = costOf(others[0]);
    }
    static void makeFloatCodebook() {
        float row[nQuant] = {1, 2, 3, 4, 5, 6, 7}, weight = 1;
        float *means[] = {row}, *diagonals[] = {row};
        GaussMixServer* density =
            KTsInitGaussMixServer(&weight, means, nullptr, diagonals, nQuant, 1, 0);
        GaussMixServer* densities[nDensities] = {density, density, density};
        KTsInitSemicontCodebook(densities, nDensities, nQuant, 0);
        KTsFreeGaussMixServer(density);
    }
    static void makePatterns() {
        float value = 5;
        short word = 5;
        float* vectors[] = {&value};
        short* words[] = {&word};
        KTsPatternIni(vectors, 1, 1);
        KTwPatternIni(words, 1, 1, 0);
    }
    static int costOf(int id) {
        const short frame[nQuant] = {1, 2, 3, 4, 5, 6, 7};
        const short* frames[] = {frame, frame};
        return KTwEvalContHMMViterbi(id, frames, 2, nullptr, KT_NoScale, nullptr);
    }

    // Also that the operation has left no model of its own behind.
    void expectOthersUnchanged() {
        if (others.empty()) return;
        KTSetStatus(KT_StsOk); // under a negative one there is no evaluation
        EXPECT_EQ(KTGetContext()->nHMMServers, nOthers);
        for (const int id : others) {
            int states = 0, dimensions = 0, itsScale = 0, status = 0;
            EXPECT_EQ(KTGetHMMParm(id, &states, nullptr, &dimensions, &itsScale, &status), 0);
            EXPECT_EQ(states, nStates);
            EXPECT_EQ(dimensions, nQuant);
            EXPECT_EQ(itsScale, scale);
            EXPECT_EQ(status, 0x40400011);
            EXPECT_EQ(costOf(id), cost);
        }
        for (const SemicontCodebook* codebook :
             {KTGetContext()->sSemicont, KTGetContext()->wSemicont}) {
            EXPECT_EQ(codebook->nSymbols, nDensities);
            EXPECT_EQ(codebook->nQuant, nQuant);
        }
        float** vectors = nullptr;
        EXPECT_EQ(KTsPatternGet(1, &vectors, nullptr, nullptr), 1);
        EXPECT_EQ(vectors[0][0], 5.0f);
        EXPECT_EQ(KTsPatternsNumber(), 1);
    }

    Manner manner;
    int acting, answer, count = 0;
    std::vector<std::function<void()>> owned;
    std::vector<int> others;
    int cost = 0;
    long blocksBefore = 0;
    KTErrorHandler previousHandler = nullptr;
    int previousMode = 0;
};

// body(scene) sets up, runs an operation that reports, and looks at its result; once for each
// manner.
template <class Body>
void onReport(Body body, int actAt = 1, int answer = 0) {
    for (const Manner manner : allManners) {
        SCOPED_TRACE(int(manner));
        Scene scene(manner, actAt, answer);
        body(scene);
        EXPECT_TRUE(scene.acted());
    }
}

// The same with the operation's n-th allocation failing, for each n; at least one of them has to be
// reported.
template <class Body>
void onEveryFailure(Body body) {
    for (const Manner manner : allManners) {
        SCOPED_TRACE(int(manner));
        int reported = 0;
        bool failed = true;
        for (int n = 1; failed; ++n) {
            SCOPED_TRACE(n);
            Scene scene(manner);
            scene.failAt = n;
            body(scene);
            reported += scene.acted();
            failed = scene.allocationFailed;
        }
        EXPECT_GT(reported, 0);
    }
}

} // namespace support
