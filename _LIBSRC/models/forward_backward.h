// Forward and backward variables of a whole observation sequence under one float model of the
// exponential domain (which is not tested), in double precision, kept in range by powers of two. L.
// R. Rabiner, A Tutorial on Hidden Markov Models and Selected Applications in Speech Recognition,
// 1989.
#pragma once

#include "models/layout.h"

#include "levels/levels.h"

// With N states and T = nFrames: pAlphaBeta takes T rows of N forward values and after them T rows
// of N backward values; pScales takes the T factors, each applied to its frame's forward values and
// to the backward values of the frame before. alpha(t, i) * beta(t, i) divided by the result is the
// occupancy of state i at frame t. pOutProbs holds T rows of N output values; symbols are 0 ..
// nSymbols - 1.
//
// The result is the likelihood times 2^*pExponent. What is not above 0 is a failure, and *pExponent
// is then 0x7FFFFFFF: 0.0 for a sequence that the model cannot produce, a symbol outside the
// alphabet included, and for an unknown or incomplete server; -1.0 where there is no registry and
// for sums that are negative or beyond the doubles. Nothing is allocated.
//
// Backward values can leave the doubles where forward values vanish or nearly do. All but those of
// the last frame are then formed from the occupancies: 0 where the forward value is 0, and never
// beyond the doubles.
double KTsEvalHMMForwardBackward(int hmm, const int* pObservations, double* pAlphaBeta,
                                 double* pScales, int nFrames, int* pExponent);
double KTsEvalContHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales,
                                     const float* pOutProbs, int nFrames, int* pExponent);

// Also compares the server with the thread's codebook; each disagreement is reported as
// KT_StsBadArg, and the evaluation goes on.
double KTsEvalSemicontHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales,
                                         const float* pOutProbs, int nFrames, int* pExponent);

namespace hmm {

// The same for records and for rows that the caller has padded: what training works with.
double forwardBackward(const HMMServer* server, const vsq::HmmOutputs& outputs,
                       const vsq::HmmLattice& lattice, int* pExponent,
                       const vsq::HmmUnpacked& unpacked = {});

// Where the recursions over probabilities find a model's transitions, whatever its domain.
inline TransitionMap sourceMap(const HMMServer* server) {
    return {topologyOf(server->status), Order::bySource, server->nStates};
}

// Whether all backward values of a complete lattice are finite.
bool isBackwardFinite(const vsq::HmmLattice& lattice, int nStates);

// Fills beta's rows with occupancies, alpha * beta * weight, weight being 1 / likelihood, from the
// forward values alone: what a state has is shared out to the states before it in proportion to
// what they brought to it, so that no backward value is needed. `moves`, unless null, gets the
// shares of every transition, added at its place in the stored array.
void occupanciesFromForward(const HMMServer* server, const vsq::HmmLattice& lattice, double weight,
                            double* moves);

vsq::HmmStored storedModel(const HMMServer* server, const vsq::HmmUnpacked& unpacked = {});
bool inAlphabet(const HMMServer* server, const int* pObservations, int nFrames);
void compareWithCodebook(const HMMServer* server);

} // namespace hmm
