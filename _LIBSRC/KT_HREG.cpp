// The thread's registry of models: a list sorted by id, and beside it a table by id, so that looking one up,
// registering under the lowest free id and releasing take constant time.
#include "KT_HMM.h"

#include "KT_SEMICONT.h"

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// The registered records by id, and which ids are taken as one bit each; a second row of bits tells which
// words of the first are full, so that the lowest free id is a scan of few words even among very many models.
struct IdTable {
    int capacity; // ids 1 .. capacity - 1; a multiple of 64 * 64
    HMMServer** byId;
    std::uint64_t* taken;
    std::uint64_t* fullWords;
};

// The list's sentinel with the table behind it: KTContext::hmmServerList points at the sentinel.
struct Registry {
    HMMServer sentinel;
    IdTable table;
};

constexpr int idsPerWord = 64;
constexpr int growthUnit = idsPerWord * idsPerWord;

Registry* registryOf(KTContext* context) {
    return reinterpret_cast<Registry*>(context->hmmServerList);
}

void freeTable(IdTable& table) {
    std::free(table.byId);
    std::free(table.taken);
    std::free(table.fullWords);
    table = IdTable{};
}

template <class T>
bool enlarge(T*& array, int oldCount, int newCount) {
    T* grown = static_cast<T*>(std::calloc(std::size_t(newCount), sizeof(T)));
    if (grown == nullptr) return false;
    if (oldCount > 0) std::memcpy(grown, array, std::size_t(oldCount) * sizeof(T));
    std::free(array);
    array = grown;
    return true;
}

// Doubles the table. A failure on the way leaves arrays longer than `capacity` says, which is harmless.
bool growTable(IdTable& table) {
    const int old = table.capacity;
    if (old > HMM_CHUNK_LAST_KEY) return false; // a class holds no larger id
    const int wanted = old == 0 ? growthUnit : 2 * old;
    if (!enlarge(table.byId, old, wanted) || !enlarge(table.taken, old / idsPerWord, wanted / idsPerWord) ||
        !enlarge(table.fullWords, old / growthUnit, wanted / growthUnit))
        return false;
    if (old == 0) table.taken[0] = 1; // 0 is no id
    table.capacity = wanted;
    return true;
}

void mark(IdTable& table, int id, HMMServer* server) {
    const int word = id / idsPerWord, group = word / idsPerWord;
    const std::uint64_t bit = std::uint64_t(1) << (id % idsPerWord);
    const std::uint64_t groupBit = std::uint64_t(1) << (word % idsPerWord);
    table.byId[id] = server;
    if (server != nullptr)
        table.taken[word] |= bit;
    else
        table.taken[word] &= ~bit;
    if (table.taken[word] == ~std::uint64_t(0))
        table.fullWords[group] |= groupBit;
    else
        table.fullWords[group] &= ~groupBit;
}

// The lowest id that is not taken, where all below `from` are; `capacity` when there is none.
int lowestFree(const IdTable& table, int from) {
    for (int group = from / growthUnit; group < table.capacity / growthUnit; ++group) {
        const int inGroup = std::countr_one(table.fullWords[group]);
        if (inGroup == idsPerWord) continue;
        const int word = group * idsPerWord + inGroup;
        return word * idsPerWord + std::countr_one(table.taken[word]);
    }
    return table.capacity;
}

// The record that the lowest free id follows: the end of the run of ids that begins at 1 and reaches `id` at
// least.
HMMServer* endOfRun(const Registry* registry, int id) {
    return registry->table.byId[lowestFree(registry->table, id) - 1];
}

template <class T>
T* zeroed() {
    return static_cast<T*>(std::calloc(1, sizeof(T)));
}

} // namespace

void KTInitHMMRegistry() {
    KTContext* context = KTGetContext();
    if ((context->hmmMode & HMM_MODE_READY) != 0) return;
    HMMClass* classes = zeroed<HMMClass>();
    Registry* servers = zeroed<Registry>();
    SemicontCodebook* floatCodebook = zeroed<SemicontCodebook>();
    SemicontCodebook* fixedCodebook = zeroed<SemicontCodebook>();
    if (classes == nullptr || servers == nullptr || floatCodebook == nullptr || fixedCodebook == nullptr) {
        std::free(classes);
        std::free(servers);
        std::free(floatCodebook);
        std::free(fixedCodebook);
        return;
    }
    classes->next = classes->prev = classes;
    servers->sentinel.next = servers->sentinel.prev = &servers->sentinel;
    context->hmmClassList = classes;
    context->hmmServerList = context->hmmServerCursor = &servers->sentinel;
    context->sSemicont = floatCodebook;
    context->wSemicont = fixedCodebook;
    context->hmmMode = HMM_MODE_READY | KT_HMM_REPLACE;
}

void KTFreeHMMRegistry() {
    KTContext* context = KTGetContext();
    freeTable(registryOf(context)->table);
    std::free(registryOf(context));
    std::free(context->hmmClassList);
    std::free(context->sSemicont);
    std::free(context->wSemicont);
    context->hmmClassList = nullptr;
    context->hmmServerList = context->hmmServerCursor = nullptr;
    context->sSemicont = context->wSemicont = nullptr;
}

int KTRegisterHMMServer(HMMServer* server) {
    KTContext* context = KTGetContext();
    Registry* registry = registryOf(context);
    IdTable& table = registry->table;
    HMMServer* before = context->hmmServerCursor;
    if (before->id + 1 >= table.capacity && !growTable(table)) return -1;
    server->id = before->id + 1;
    server->prev = before;
    server->next = before->next;
    before->next->prev = server;
    before->next = server;
    mark(table, server->id, server);
    context->hmmServerCursor = endOfRun(registry, server->id);
    ++context->nHMMServers;
    return server->id;
}

void KTUnregisterHMMServer(HMMServer* server) {
    KTContext* context = KTGetContext();
    if (server->id <= context->hmmServerCursor->id) context->hmmServerCursor = server->prev;
    server->prev->next = server->next;
    server->next->prev = server->prev;
    mark(registryOf(context)->table, server->id, nullptr);
    server->id = 0;
    --context->nHMMServers;
}

HMMServer* KTFindHMMServer(int id) {
    const KTContext* context = KTGetContext();
    if ((context->hmmMode & HMM_MODE_READY) == 0) return nullptr;
    const IdTable& table = reinterpret_cast<const Registry*>(context->hmmServerList)->table;
    return id > 0 && id < table.capacity ? table.byId[id] : nullptr;
}

void KTGetHMMServerInfo(int id, int* tag, void** transitions, void** outputs, void** initials, int* nStates,
                        int* nSymbols, int* nQuant, int* scale, unsigned* status) {
    const auto set = [](auto* target, auto value) {
        if (target != nullptr) *target = value;
    };
    static const HMMServer unknown{};
    const HMMServer* found = KTFindHMMServer(id);
    const HMMServer& server = found != nullptr ? *found : unknown;
    set(tag, server.tag);
    set(transitions, server.transitions);
    set(outputs,
        (server.status & HMM_SERVER_CONT) != 0 ? static_cast<void*>(server.mixtures) : server.outputs);
    set(initials, server.initials);
    set(nStates, server.nStates);
    set(nSymbols, server.nSymbols);
    set(nQuant, server.nQuant);
    set(scale, server.scale);
    set(status, server.status);
}

void KTSetHMMMode(int mode) {
    KTInitHMMRegistry();
    KTContext* context = KTGetContext();
    if ((mode & KT_HMM_REPLACE) != 0)
        context->hmmMode = (context->hmmMode | KT_HMM_REPLACE) & ~unsigned(KT_HMM_KEEP);
    else if ((mode & KT_HMM_KEEP) != 0)
        context->hmmMode = (context->hmmMode | KT_HMM_KEEP) & ~unsigned(KT_HMM_REPLACE);
}

int KTGetHMMParm(int id, int* nStates, int* nSymbols, int* nQuant, int* scale, int* status) {
    if (KTFindHMMServer(id) == nullptr) return -1;
    unsigned word = 0;
    KTGetHMMServerInfo(id, nullptr, nullptr, nullptr, nullptr, nStates, nSymbols, nQuant, scale, &word);
    if (status != nullptr) *status = static_cast<int>(word);
    return 0;
}
