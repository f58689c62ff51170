// The choice of the instruction-set level: the best that the processor has, made once, when the
// module is loaded.
#include "levels/levels.h"
#include "platform.h"

namespace vsq {
namespace {

// A level's table; every record of levels.h appears here once, in the order of the fields.
// clang-format off
#define VSQ_LEVEL_TABLE(level)                                                                     \
    LevelTable {                                                                                   \
        .arith = &level::arithKernels,                                                             \
        .cvrts = &level::cvrtsKernels,                                                             \
        .pree = &level::preeKernels,                                                               \
        .lpc = &level::lpcKernels,                                                                 \
        .mel = &level::melKernels,                                                                 \
        .misc = &level::miscKernels,                                                               \
        .lnexp = &level::lnExpKernels,                                                             \
        .norm = &level::normKernels,                                                               \
        .dotp = &level::dotProductKernels,                                                         \
        .dotpw = &level::wordDotProductKernels,                                                    \
        .corr = &level::corrKernels,                                                               \
        .dct = &level::dctKernels,                                                                 \
        .ffts = &level::fftsKernels,                                                               \
        .mahal = &level::mahalKernels,                                                             \
        .dtw = &level::dtwKernels,                                                                 \
        .kohonen = &level::kohonenKernels,                                                         \
        .tree = &level::treeKernels,                                                               \
        .gauss = &level::gaussKernels,                                                             \
        .hmm = &level::hmmKernels,                                                                 \
        .matvec = &level::matVecKernels,                                                           \
        .mlp = &level::mlpKernels,                                                                 \
        .hmmtrain = &level::hmmTrainKernels,                                                       \
    }
// clang-format on

// A level as the dispatcher knows it: whether this processor has it, and its kernels.
struct LevelEntry {
    const char* name;
    bool (*isChosen)();
    LevelTable table;
};

#define VSQ_LEVEL_ENTRY(level, chosenIf) {#level, platform::chosenIf, VSQ_LEVEL_TABLE(level)},
constinit const LevelEntry entries[] = {VSQ_EVERY_LEVEL(VSQ_LEVEL_ENTRY)};
#undef VSQ_LEVEL_ENTRY

const LevelEntry& entryOf(Level level) {
    return entries[static_cast<int>(level)];
}

// Runs when the module is loaded; until then, and for static objects that run earlier, the baseline
// is in force.
struct ChooseAtLoad {
    ChooseAtLoad() { selectLevel(bestLevel()); }
} chooseAtLoad;

} // namespace

constinit const LevelTable* activeTable = &entries[0].table;

bool levelAvailable(Level level) {
    return entryOf(level).isChosen();
}

bool selectLevel(Level level) {
    if (!levelAvailable(level)) return false;
    activeTable = &entryOf(level).table;
    return true;
}

Level bestLevel() {
    Level best = Level::baseline;
    for (Level level : everyLevel)
        if (levelAvailable(level)) best = level;
    return best;
}

Level activeLevel() {
    for (Level level : everyLevel)
        if (activeTable == &entryOf(level).table) return level;
    return Level::baseline;
}

const char* levelName(Level level) {
    return entryOf(level).name;
}

} // namespace vsq
