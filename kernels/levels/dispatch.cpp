#include "levels.h"
#include "platform.h"

#include <initializer_list>

namespace vsq {
namespace {

// A level's table; every record of levels.h appears here once, in the order of the fields.
// clang-format off
#define VSQ_LEVEL_TABLE(level)                                                                               \
    LevelTable {                                                                                             \
        .arith = &level::arithKernels,                                                                       \
        .cvrts = &level::cvrtsKernels,                                                                       \
        .pree = &level::preeKernels,                                                                         \
        .lpc = &level::lpcKernels,                                                                           \
        .mel = &level::melKernels,                                                                           \
        .misc = &level::miscKernels,                                                                         \
        .lnexp = &level::lnExpKernels,                                                                       \
        .norm = &level::normKernels,                                                                         \
        .dotp = &level::dotProductKernels,                                                                   \
        .dotpw = &level::wordDotProductKernels,                                                              \
        .corr = &level::corrKernels,                                                                         \
        .dct = &level::dctKernels,                                                                           \
        .ffts = &level::fftsKernels,                                                                         \
        .mahal = &level::mahalKernels,                                                                       \
        .dtw = &level::dtwKernels,                                                                           \
        .kohonen = &level::kohonenKernels,                                                                   \
        .tree = &level::treeKernels,                                                                         \
        .gauss = &level::gaussKernels,                                                                       \
        .hmm = &level::hmmKernels,                                                                           \
        .matvec = &level::matVecKernels,                                                                     \
        .mlp = &level::mlpKernels,                                                                           \
        .hmmtrain = &level::hmmTrainKernels,                                                                 \
    }
// clang-format on

constinit const LevelTable baselineTable = VSQ_LEVEL_TABLE(baseline);
#ifdef VSQ_HAS_X86_LEVELS
constinit const LevelTable avx2Table = VSQ_LEVEL_TABLE(avx2);
constinit const LevelTable avx512Table = VSQ_LEVEL_TABLE(avx512);
#endif

const LevelTable* tableOf(Level level) {
#ifdef VSQ_HAS_X86_LEVELS
    if (level == Level::avx2) return &avx2Table;
    if (level == Level::avx512) return &avx512Table;
#endif
    return level == Level::baseline ? &baselineTable : nullptr;
}

// Runs when the module is loaded; until then, and for static objects that run earlier, the baseline is in force.
struct ChooseAtLoad {
    ChooseAtLoad() { selectLevel(bestLevel()); }
} chooseAtLoad;

} // namespace

constinit const LevelTable* activeTable = &baselineTable;

bool levelAvailable(Level level) {
    return tableOf(level) != nullptr &&
           static_cast<int>(level) <= static_cast<int>(platform::processorLevel());
}

bool selectLevel(Level level) {
    if (!levelAvailable(level)) return false;
    activeTable = tableOf(level);
    return true;
}

Level bestLevel() {
    if (levelAvailable(Level::avx512)) return Level::avx512;
    return levelAvailable(Level::avx2) ? Level::avx2 : Level::baseline;
}

Level activeLevel() {
    for (Level level : {Level::avx512, Level::avx2})
        if (activeTable == tableOf(level)) return level;
    return Level::baseline;
}

const char* levelName(Level level) {
    switch (level) {
    case Level::avx512:
        return "avx512";
    case Level::avx2:
        return "avx2";
    default:
        return "baseline";
    }
}

} // namespace vsq
