// One table of kernels per instruction-set level, and the choice of the level.
//
// A module M keeps its inner loops in vsqM_level.cpp, which is compiled once per level into the namespaces
// vsq::baseline, vsq::avx2 and vsq::avx512, and lists them in a record of function pointers in vsqM_level.h. Here
// those records come together. Callers write `vsq::kernels().arith->zero(dst, n)`.
//
// Kernels reached through these tables check nothing: n may be 0, pointers are the caller's affair, and no pointer
// needs any alignment beyond that of its element unless the record says so.
#pragma once

#include "vsqarith_level.h"
#include "vsqcorr_level.h"
#include "vsqcvrts_level.h"
#include "vsqdct_level.h"
#include "vsqdotp_level.h"
#include "vsqdotpw_level.h"
#include "vsqdtw_level.h"
#include "vsqffts_level.h"
#include "vsqgauss_level.h"
#include "vsqhmm_level.h"
#include "vsqhmmtrain_level.h"
#include "vsqkohonen_level.h"
#include "vsqlnexp_level.h"
#include "vsqlpc_level.h"
#include "vsqmahal_level.h"
#include "vsqmatvec_level.h"
#include "vsqmel_level.h"
#include "vsqmisc_level.h"
#include "vsqmlp_level.h"
#include "vsqnorm_level.h"
#include "vsqpree_level.h"
#include "vsqtree_level.h"

namespace vsq {

enum class Level { baseline, avx2, avx512 };

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

// The kernels of the level in force: the processor's best one, chosen once when the module is loaded.
inline const LevelTable& kernels() {
    return *activeTable;
}

// For tests and benchmarks: whether this build and this processor have the level; and putting it in force for the
// whole process (false, and no change, where it is not available).
bool levelAvailable(Level level);
bool selectLevel(Level level);
Level bestLevel();
Level activeLevel();
const char* levelName(Level level);

} // namespace vsq
