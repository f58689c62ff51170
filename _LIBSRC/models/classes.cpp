// Classes: ordered sets of models, kept in chunks of up to 64 members so that very many can join in
// any order at the cost of short moves. Beside the chain of chunks stands a table of them, in which
// an id finds its chunk by halving. A cursor in the record walks the members and stays on its
// member while others come and go.
#include "frame/KT_ERROR.h"
#include "models/model.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HMAN"};

using ktl::zeroed;

void freeChunks(HMMClass* group) {
    for (HMMClassChunk* chunk = group->head; chunk != nullptr;) {
        HMMClassChunk* next = chunk->next;
        std::free(chunk);
        chunk = next;
    }
}

void deleteClass(KTContext* context, HMMClass* group) {
    freeChunks(group);
    std::free(group->chunks);
    group->prev->next = group->next;
    group->next->prev = group->prev;
    std::free(group);
    --context->nHMMClasses;
}

// Where an id stands or belongs: its chunk, the chunk before, and the position of the first entry
// not below the id.
struct Place {
    HMMClassChunk* before;
    HMMClassChunk* chunk;
    int index; // of the chunk in the class's table
    int position;

    bool holds(int id) const {
        return chunk != nullptr && position < chunk->count && chunk->entries[position].id == id;
    }
};

int positionOf(const HMMClassChunk* chunk, int id) {
    int first = 0, last = chunk->count;
    while (first < last) {
        const int middle = (first + last) / 2;
        if (chunk->entries[middle].id < id)
            first = middle + 1;
        else
            last = middle;
    }
    return first;
}

// The first chunk whose largest id is not below this one.
Place find(const HMMClass* group, int id) {
    int first = 0, last = group->nChunks;
    while (first < last) {
        const int middle = (first + last) / 2;
        if (group->chunks[middle]->maxKey < id)
            first = middle + 1;
        else
            last = middle;
    }
    if (first == group->nChunks) return {nullptr, nullptr, first, 0};
    HMMClassChunk* chunk = group->chunks[first];
    return {first > 0 ? group->chunks[first - 1] : nullptr, chunk, first, positionOf(chunk, id)};
}

// Room for one more chunk in the table; false when memory ran out.
bool growTable(HMMClass* group) {
    if (group->nChunks < group->chunkRoom) return true;
    const int room = group->chunkRoom == 0 ? 4 : 2 * group->chunkRoom;
    auto** grown = zeroed<HMMClassChunk*>(std::size_t(room));
    if (grown == nullptr) return false;
    if (group->nChunks > 0)
        std::memcpy(grown, group->chunks, std::size_t(group->nChunks) * sizeof(HMMClassChunk*));
    std::free(group->chunks);
    group->chunks = grown;
    group->chunkRoom = room;
    return true;
}

// A new chunk, from now on the index-th of the table; null when memory ran out, and the class is as
// it was.
HMMClassChunk* newChunk(HMMClass* group, int index) {
    if (!growTable(group)) return nullptr;
    HMMClassChunk* chunk = zeroed<HMMClassChunk>();
    if (chunk == nullptr) return nullptr;
    HMMClassChunk** slot = group->chunks + index;
    std::memmove(slot + 1, slot, std::size_t(group->nChunks - index) * sizeof(HMMClassChunk*));
    *slot = chunk;
    ++group->nChunks;
    chunk->classId = group->id;
    return chunk;
}

bool addFirst(HMMClass* group, HMMServer* server) {
    HMMClassChunk* chunk = newChunk(group, 0);
    if (chunk == nullptr) return false;
    chunk->maxKey = HMM_CHUNK_LAST_KEY;
    chunk->count = 1;
    chunk->entries[0] = {server->id, server};
    group->head = group->cursorChunk = chunk;
    group->cursorIndex = 0;
    ++group->nMembers;
    return true;
}

// Halves a full chunk: the upper entries move to a new one after it.
bool split(HMMClass* group, const Place& place) {
    constexpr int half = HMM_CHUNK_CAPACITY / 2;
    HMMClassChunk *chunk = place.chunk, *upper = newChunk(group, place.index + 1);
    if (upper == nullptr) return false;
    upper->next = chunk->next;
    upper->maxKey = chunk->maxKey;
    upper->count = half;
    std::memcpy(upper->entries, chunk->entries + half, half * sizeof(HMMClassEntry));
    std::memset(chunk->entries + half, 0, half * sizeof(HMMClassEntry));
    chunk->next = upper;
    chunk->count = half;
    chunk->maxKey = chunk->entries[half - 1].id;
    if (group->cursorChunk == chunk && group->cursorIndex >= half) {
        group->cursorChunk = upper;
        group->cursorIndex -= half;
    }
    return true;
}

void insert(HMMClass* group, HMMClassChunk* chunk, int position, HMMServer* server) {
    HMMClassEntry* entry = chunk->entries + position;
    std::memmove(entry + 1, entry, std::size_t(chunk->count - position) * sizeof(HMMClassEntry));
    *entry = {server->id, server};
    ++chunk->count;
    ++group->nMembers;
    if (server->id > chunk->maxKey) chunk->maxKey = server->id;
    if (group->cursorChunk == chunk && position <= group->cursorIndex) ++group->cursorIndex;
}

bool add(HMMClass* group, HMMServer* server) {
    if (group->head == nullptr) return addFirst(group, server);
    Place place = find(group, server->id);
    if (place.holds(server->id)) return true;
    if (place.chunk->count == HMM_CHUNK_CAPACITY) {
        if (!split(group, place)) return false;
        if (server->id > place.chunk->maxKey) place.chunk = place.chunk->next;
        place.position = positionOf(place.chunk, server->id);
    }
    insert(group, place.chunk, place.position, server);
    return true;
}

// Before a member goes: a cursor on it steps to the member before; a cursor on a later one of the
// chunk moves with its member.
void stepCursorBack(HMMClass* group, const Place& place) {
    if (group->cursorChunk != place.chunk || group->cursorIndex < place.position) return;
    if (place.position > 0 || group->cursorIndex > 0) {
        --group->cursorIndex;
    } else if (place.before != nullptr) {
        group->cursorChunk = place.before;
        group->cursorIndex = place.before->count - 1;
    } else {
        group->cursorChunk = group->head;
        group->cursorIndex = 0;
        group->status |= HMM_CLASS_REWOUND;
    }
}

void dropChunk(HMMClass* group, const Place& place) {
    if (place.before == nullptr) {
        group->head = place.chunk->next;
        // the cursor leaves the chunk that is freed; in an empty class it is null
        if (group->cursorChunk == place.chunk || group->head == nullptr)
            group->cursorChunk = group->head;
    } else {
        place.before->next = place.chunk->next;
        if (place.chunk->maxKey == HMM_CHUNK_LAST_KEY) place.before->maxKey = HMM_CHUNK_LAST_KEY;
    }
    --group->nChunks;
    HMMClassChunk** slot = group->chunks + place.index;
    std::memmove(slot, slot + 1,
                 std::size_t(group->nChunks - place.index) * sizeof(HMMClassChunk*));
    std::free(place.chunk);
}

// Moves the cursor to the next entry; null at the end.
const HMMClassEntry* step(HMMClass* group) {
    if ((group->status & HMM_CLASS_AT_END) != 0) return nullptr;
    if ((group->status & HMM_CLASS_REWOUND) != 0) {
        group->status &= ~HMM_CLASS_REWOUND;
        group->cursorChunk = group->head;
        group->cursorIndex = 0;
    } else if (group->cursorChunk != nullptr && ++group->cursorIndex >= group->cursorChunk->count) {
        group->cursorChunk = group->cursorChunk->next;
        group->cursorIndex = 0;
    }
    if (group->cursorChunk == nullptr) {
        group->status |= HMM_CLASS_AT_END;
        return nullptr;
    }
    return &group->cursorChunk->entries[group->cursorIndex];
}

} // namespace

void removeFromHMMClass(HMMClass* group, int id) {
    const Place place = find(group, id);
    if (!place.holds(id)) return;
    HMMClassChunk* chunk = place.chunk;
    stepCursorBack(group, place);
    HMMClassEntry* entry = chunk->entries + place.position;
    std::memmove(entry, entry + 1,
                 std::size_t(chunk->count - place.position - 1) * sizeof(HMMClassEntry));
    --group->nMembers;
    if (chunk->count == 1) {
        dropChunk(group, place);
        return;
    }
    --chunk->count;
    chunk->entries[chunk->count] = {};
    if (id == chunk->maxKey && chunk->maxKey != HMM_CHUNK_LAST_KEY)
        chunk->maxKey = chunk->entries[chunk->count - 1].id;
}

void rewindHMMClass(HMMClass* group) {
    group->status = (group->status & ~HMM_CLASS_AT_END) | HMM_CLASS_REWOUND;
    group->cursorChunk = group->head;
    group->cursorIndex = 0;
}

HMMServer* nextHMMInClass(HMMClass* group) {
    const HMMClassEntry* entry = step(group);
    return entry != nullptr ? entry->server : nullptr;
}

HMMClass* KTFindHMMClass(int classId) {
    const KTContext* context = KTGetContext();
    if (!hasHMMRegistry(context)) return nullptr;
    HMMClass* group = context->hmmClassList->next;
    while (group != context->hmmClassList && group->id < classId)
        group = group->next;
    return group != context->hmmClassList && group->id == classId ? group : nullptr;
}

int KTResetHMMClass(int classId) {
    HMMClass* group = KTFindHMMClass(classId);
    if (group == nullptr) return -1;
    rewindHMMClass(group);
    return 1;
}

int KTNextHMMInClass(int classId) {
    HMMClass* group = KTFindHMMClass(classId);
    if (group == nullptr) return -1;
    const HMMClassEntry* entry = step(group);
    return entry != nullptr ? entry->id : 0;
}

void KTFreeHMMClasses() {
    KTContext* context = KTGetContext();
    for (HMMClass* group = context->hmmClassList->next; group != context->hmmClassList;) {
        HMMClass* next = group->next;
        deleteClass(context, group);
        group = next;
    }
}

int KTCreateHMMClass(void) {
    HMMClass* group = startHMMRegistry() ? zeroed<HMMClass>() : nullptr;
    if (group == nullptr) return -1;
    KTContext* context = KTGetContext();
    HMMClass* before = context->hmmClassList;
    while (before->next->id == before->id + 1)
        before = before->next;
    group->id = before->id + 1;
    group->status = HMM_CLASS_REWOUND;
    group->prev = before;
    group->next = before->next;
    before->next->prev = group;
    before->next = group;
    ++context->nHMMClasses;
    return group->id;
}

int KTDeleteHMMClass(int classId) {
    HMMClass* group = KTFindHMMClass(classId);
    if (group == nullptr) return -1;
    deleteClass(KTGetContext(), group);
    return 1;
}

int KTAddHMMToClass(int classId, int hmm) {
    HMMClass* group = KTFindHMMClass(classId);
    HMMServer* server = KTFindHMMServer(hmm);
    if (group == nullptr || server == nullptr) return -1;
    const unsigned key = server->status & HMM_CLASS_KEY_MASK;
    const unsigned groupKey = group->status & HMM_CLASS_KEY_MASK;
    if (groupKey != 0 && groupKey != key) {
        module.report(KT_StsBadArg, "wrong class for HMM server");
        return -1;
    }
    const unsigned statusBefore = group->status;
    if (groupKey == 0) group->status = key;
    if (add(group, server)) return 1;
    group->status = statusBefore;
    return -1;
}

int KTRemoveHMMFromClass(int classId, int hmm) {
    HMMClass* group = KTFindHMMClass(classId);
    if (group == nullptr || KTFindHMMServer(hmm) == nullptr) return -1;
    removeFromHMMClass(group, hmm);
    return 1;
}
