// The thread's registry of models: a list sorted by id, and beside it a table by id, so that
// looking one up, registering under the lowest free id and releasing take constant time.
#include "models/model.h"

#include "frame/id_table.h"
#include "quantisers/density_codebook.h"

#include <cstdlib>

namespace {

// The list's sentinel with the table behind it: KTContext::hmmServerList points at the sentinel.
struct Registry {
    HMMServer sentinel;
    ktl::IdTable<HMMServer> table;
};

Registry* registryOf(KTContext* context) {
    return reinterpret_cast<Registry*>(context->hmmServerList);
}

// Whether an id has a place in the table, grown where it has not. A class holds no id above
// HMM_CHUNK_LAST_KEY.
bool makePlace(ktl::IdTable<HMMServer>& table, int id) {
    return table.covers(id) || (table.capacity() <= HMM_CHUNK_LAST_KEY && table.grow());
}

} // namespace

void KTInitHMMRegistry() {
    KTContext* context = KTGetContext();
    if (hasHMMRegistry(context)) return;
    auto* classes = ktl::zeroed<HMMClass>();
    auto* servers = ktl::zeroed<Registry>();
    auto* floatCodebook = ktl::zeroed<SemicontCodebook>();
    auto* fixedCodebook = ktl::zeroed<SemicontCodebook>();
    if (classes == nullptr || servers == nullptr || floatCodebook == nullptr ||
        fixedCodebook == nullptr) {
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
    registryOf(context)->table.release();
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
    auto& table = registryOf(context)->table;
    HMMServer* before = context->hmmServerCursor;
    if (!makePlace(table, before->id + 1)) return -1;
    server->id = before->id + 1;
    server->prev = before;
    server->next = before->next;
    before->next->prev = server;
    before->next = server;
    table.set(server->id, server);
    // the end of the run of ids from 1 on
    context->hmmServerCursor = table.find(table.lowestFree() - 1);
    ++context->nHMMServers;
    return server->id;
}

void KTUnregisterHMMServer(HMMServer* server) {
    KTContext* context = KTGetContext();
    if (server->id <= context->hmmServerCursor->id) context->hmmServerCursor = server->prev;
    server->prev->next = server->next;
    server->next->prev = server->prev;
    registryOf(context)->table.set(server->id, nullptr);
    server->id = 0;
    --context->nHMMServers;
}

HMMServer* KTFindHMMServer(int id) {
    const KTContext* context = KTGetContext();
    if (!hasHMMRegistry(context)) return nullptr;
    return reinterpret_cast<const Registry*>(context->hmmServerList)->table.find(id);
}

void KTGetHMMServerInfo(int id, int* tag, void** transitions, void** outputs, void** initials,
                        int* nStates, int* nSymbols, int* nQuant, int* scale, unsigned* status) {
    const auto set = [](auto* target, auto value) {
        if (target != nullptr) *target = value;
    };
    static const HMMServer unknown{};
    const HMMServer* found = KTFindHMMServer(id);
    const HMMServer& server = found != nullptr ? *found : unknown;
    set(tag, server.tag);
    set(transitions, server.transitions);
    set(outputs, (server.status & HMM_SERVER_CONT) != 0 ? static_cast<void*>(server.mixtures)
                                                        : server.outputs);
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
    KTGetHMMServerInfo(id, nullptr, nullptr, nullptr, nullptr, nStates, nSymbols, nQuant, scale,
                       &word);
    if (status != nullptr) *status = static_cast<int>(word);
    return 0;
}
