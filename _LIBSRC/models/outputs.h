// Output kinds: how a frame scores in each state of a discrete, a continuous and a semicontinuous
// model. Each is one class for all recursions; in which numbers it scores is a policy of the
// recursion.
//
// A scoring policy has
//     form                      status bit of its numeric form
//     Feature                   element of a frame
//     Stored                    element of a discrete model's output rows
//     OfMixtures, OfWeights     elements of a continuous and a semicontinuous model's output values
//     scoreMixtures(server, frame, row)      a continuous model's output values of a frame
//     scoreWeights(server, densities, row)   a semicontinuous one's, from the codebook's densities
#pragma once

#include "frame/KT_ERROR.h"
#include "frame/row_products.h"
#include "mixtures/KT_GAUSS.h"
#include "models/evaluation.h"
#include "quantisers/density_codebook.h"

namespace hmm {

// --- the thread's codebook, and its densities for all frames of a call ---

// What an evaluation says about the codebook, and when.
struct CodebookChecks {
    const ktl::Module& module;
    const char* whenEmpty; // the function named in a report of an empty codebook
    const char* whenOther; // and in one of a server that does not agree with it
    bool modelFirst;       // an unknown model fails before the codebook is looked at
};

// The codebook with densities, or null after the report "_sSemicontCodebook->ccgPdfs==0" ("_w" in
// the fixed form).
const SemicontCodebook* codebookWithDensities(const CodebookChecks& checks, bool isFixed);

// Whether a server's counts are the codebook's; reports where they are not.
bool agreesWithCodebook(const CodebookChecks& checks, const HMMServer* server,
                        const SemicontCodebook* codebook);

// Where a server and the float codebook differ. A report's handler may release the server, so both
// answers are known before either is reported.
struct CodebookDisagreement {
    explicit CodebookDisagreement(const HMMServer* server);
    void report(const ktl::Module& module, const char* funcName) const;

    bool inSymbols, inLengths;
};

// A row of densities for each frame, padded to a multiple of 4; the frames are float or short as
// the codebook is.
template <class T>
class DensityTable {
public:
    bool evaluate(const SemicontCodebook* codebook, const T* const* frames, int nFrames);
    const T* row(int t) const { return rows[t]; }

private:
    ktl::AlignedScratch<char> block; // row pointers and rows
    T** rows = nullptr;
};

// --- scores that policies share ---

// Continuous models, float: every state's mixture on the frame. T is double for likelihoods in the
// forward recursion, float for what becomes costs.
template <class T>
void mixtureRow(const HMMServer* server, const float* frame, T* row) {
    for (int i = 0; i < server->nStates; ++i)
        row[i] = static_cast<T>(KTsEvalGaussMix(server->mixtures[i], frame, server->nQuant));
}

// Semicontinuous models, float: every state's weights on the frame's densities.
inline void weightedRow(const HMMServer* server, const float* densities, float* row) {
    ktl::rowProducts(row, outputRows<const float>(server->outputs), densities, server->nStates,
                     server->nSymbols);
}

// --- the kinds ---

// The stored row of the observed symbol, read in place.
template <class Scores>
class Discrete {
public:
    using Element = typename Scores::Stored;
    static constexpr unsigned kind = HMM_SERVER_DISCRETE | Scores::form;
    static constexpr bool isComputed = false;

    explicit Discrete(const int* observations) : symbols(observations) {}
    bool prepare(int, int) const { return true; }
    bool accepts(const HMMServer*) const { return true; }

    // False for a symbol outside the alphabet.
    bool rows(const HMMServer* server, int first, int count, Element*, RowRun<Element>& run) const {
        const Element* const* stored = outputRows<const Element>(server->outputs);
        const int* observed = symbols + first;
        for (int t = 0; t < count; ++t) {
            if (observed[t] < 0 || observed[t] >= server->nSymbols) return false;
            run[std::size_t(t)] = stored[observed[t]];
        }
        return true;
    }

private:
    const int* symbols;
};

// score(t, row) for the frames first .. first + count - 1, each in a row of the block.
template <class T, class Score>
void computeRows(const HMMServer* server, int first, int count, T* block, RowRun<T>& run,
                 const Score& score) {
    for (int t = 0; t < count; ++t, block += vsq::hmmStride(server->nStates)) {
        score(first + t, block);
        run[std::size_t(t)] = block;
    }
}

// Every state's mixture on the frame.
template <class Scores>
class Continuous {
public:
    using Element = typename Scores::OfMixtures;
    using Frames = const typename Scores::Feature* const*;
    static constexpr unsigned kind = HMM_SERVER_CONT | Scores::form;
    static constexpr bool isComputed = true;

    explicit Continuous(Frames framesOfCall) : frames(framesOfCall) {}
    bool prepare(int, int) const { return true; }
    bool accepts(const HMMServer*) const { return true; }
    bool rows(const HMMServer* server, int first, int count, Element* block,
              RowRun<Element>& run) const {
        computeRows(server, first, count, block, run, [=, this](int t, Element* row) {
            Scores::scoreMixtures(server, frames[t], row);
        });
        return true;
    }

private:
    Frames frames;
};

// Every state's weights on the densities of the thread's codebook, which are computed once for all
// servers of a call.
template <class Scores>
class Semicontinuous {
public:
    using Element = typename Scores::OfWeights;
    using Frames = const typename Scores::Feature* const*;
    static constexpr unsigned kind = HMM_SERVER_SEMICONT | Scores::form;
    static constexpr bool isComputed = true;

    Semicontinuous(Frames framesOfCall, const CodebookChecks& checksOfCall)
        : frames(framesOfCall), checks(checksOfCall) {}

    bool prepare(int hmm, int nFrames) {
        if (checks.modelFirst && !ServerWalk(hmm).isKnown()) return false;
        codebook = codebookWithDensities(checks, Scores::form == HMM_SERVER_SHORT);
        return codebook != nullptr && ServerWalk(hmm).isKnown() && nFrames > 0 &&
               densities.evaluate(codebook, frames, nFrames);
    }
    bool accepts(const HMMServer* server) const {
        return agreesWithCodebook(checks, server, codebook);
    }
    bool rows(const HMMServer* server, int first, int count, Element* block,
              RowRun<Element>& run) const {
        computeRows(server, first, count, block, run, [=, this](int t, Element* row) {
            Scores::scoreWeights(server, densities.row(t), row);
        });
        return true;
    }

private:
    Frames frames;
    CodebookChecks checks;
    const SemicontCodebook* codebook = nullptr;
    DensityTable<typename Scores::Feature> densities;
};

} // namespace hmm

// Weighted densities of a codebook: ppOut[t][k] for frame t and density k, nPdfs of them, the rows
// padded to a multiple of 4 elements that come out as 0. A full density decays twice as fast as its
// diagonal twin in the float form; the fixed form has the factor 1/2 in both. Fixed densities have
// 14 fractional bits.
void KTsEvalPdfsFrames(const SemicontCodebook* pCodebook, const float* const* ppFrames,
                       float** ppOut, int nFrames, int nPdfs, int nDim);
void KTwEvalPdfsFrames(const SemicontCodebook* pCodebook, const short* const* ppFrames,
                       short** ppOut, int nFrames, int nPdfs, int nDim);
