// One table of kernels per instruction-set level, and the choice of the level.
//
// A module M keeps its inner loops in vsqM_level.cpp, which is compiled once per level of
// levels.list, each time into a namespace of the level's name (vsq::baseline, ...), and lists them
// in a record of function pointers in vsqM_level.h. Here those records come together. Callers write
// `vsq::kernels().arith->setFloat(0, dst, n)`.
//
// Kernels reached through these tables check nothing: n may be 0, pointers are the caller's affair,
// and no pointer needs any alignment beyond that of its element unless the record says so.
#pragma once

#include "recognition/vsqdtw_level.h"
#include "recognition/vsqgauss_level.h"
#include "recognition/vsqhmm_level.h"
#include "recognition/vsqhmmtrain_level.h"
#include "recognition/vsqkohonen_level.h"
#include "recognition/vsqlpc_level.h"
#include "recognition/vsqmahal_level.h"
#include "recognition/vsqmatvec_level.h"
#include "recognition/vsqmel_level.h"
#include "recognition/vsqmlp_level.h"
#include "recognition/vsqpree_level.h"
#include "recognition/vsqtree_level.h"
#include "transforms/vsqdct_level.h"
#include "transforms/vsqffts_level.h"
#include "vectors/vsqarith_level.h"
#include "vectors/vsqcorr_level.h"
#include "vectors/vsqcvrts_level.h"
#include "vectors/vsqdotp_level.h"
#include "vectors/vsqdotpw_level.h"
#include "vectors/vsqlnexp_level.h"
#include "vectors/vsqmisc_level.h"
#include "vectors/vsqnorm_level.h"

namespace vsq {

// In ascending order; the first is the one that every processor has.
#define VSQ_LEVEL_NAME(level, chosenIf) level,
enum class Level { VSQ_EVERY_LEVEL(VSQ_LEVEL_NAME) };
#undef VSQ_LEVEL_NAME

#define VSQ_LEVEL_VALUE(level, chosenIf) Level::level,
constexpr Level everyLevel[] = {VSQ_EVERY_LEVEL(VSQ_LEVEL_VALUE)};
#undef VSQ_LEVEL_VALUE

struct LevelTable {
    const ArithKernels* arith;
    const CvrtsKernels* cvrts;
    const PreeKernels* pree;
    const LpcKernels* lpc;
    const MelKernels* mel;
    const MiscKernels* misc;
    const LnExpKernels* lnexp;
    const NormKernels* norm;
    const DotProductKernels* dotp;
    const WordDotProductKernels* dotpw;
    const CorrKernels* corr;
    const DctKernels* dct;
    const FftsKernels* ffts;
    const MahalKernels* mahal;
    const DtwKernels* dtw;
    const KohonenKernels* kohonen;
    const TreeKernels* tree;
    const GaussKernels* gauss;
    const HmmKernels* hmm;
    const MatVecKernels* matvec;
    const MlpKernels* mlp;
    const HmmTrainKernels* hmmtrain;
};

extern const LevelTable* activeTable;

// The kernels of the level in force: the processor's best one, chosen once when the module is
// loaded.
inline const LevelTable& kernels() {
    return *activeTable;
}

// For tests and benchmarks: whether this build and this processor have the level; and putting it in
// force for the whole process (false, and no change, where it is not available).
bool levelAvailable(Level level);
bool selectLevel(Level level);
Level bestLevel();
Level activeLevel();
const char* levelName(Level level);

} // namespace vsq
