// The record of a hidden Markov model, the thread's registry of them, and their classes.
#pragma once

#include "frame/blocks.h"
#include "frame/context.h"

#include <cstddef>
#include <cstdlib>
#include <utility>

struct GaussMixServer;

// Everything about one model, told apart by `status`. The field order is that of the file image, in
// which each field is one 32-bit word; in memory pointers are natural.
struct HMMServer {
    int id;
    int tag; // kept by files, read by nothing; 0 on every server that the library makes
    int nStates;
    int nSymbols; // discrete: alphabet; semicontinuous: codebook densities; continuous: unused
    void* transitions;
    // discrete, semicontinuous: pointer table and rows in one block; continuous: null
    void* outputs;
    void* initials;
    HMMServer* next;
    HMMServer* prev;
    unsigned status;
    int* stateWords;           // nStates words that came with a file, carried along; usually null
    GaussMixServer** mixtures; // continuous: nStates pointers, otherwise null
    int nQuant;
    int scale;
    int reserved0;
    int reserved1; // carried by copies and conversions

    // Of this process alone, after what files hold: the operations in progress that keep the bare
    // record, see HeldHMMServer; and whether the mixtures are the server's own where the status
    // does not say so.
    int nHolds;
    bool holdsMixtures;
};
static_assert(sizeof(void*) != 4 || offsetof(HMMServer, nHolds) == 64,
              "the record of a 32-bit build");

// A bit of KTContext::hmmMode beside HMM_MODE_READY and the public KT_HMM_REPLACE and KT_HMM_KEEP:
// keep logarithmic float transitions tiled. Nothing sets it yet.
inline constexpr unsigned HMM_MODE_TILED = 0x00000100u;

inline constexpr unsigned hmmDomainBits = KT_HMM_LOGARITHMIC | KT_HMM_EXPONENTIAL;
inline constexpr unsigned hmmFormBits = HMM_SERVER_SHORT | HMM_SERVER_FLOAT;
inline constexpr unsigned hmmKindBits = HMM_SERVER_DISCRETE | HMM_SERVER_CONT | HMM_SERVER_SEMICONT;
inline constexpr unsigned hmmTopologyBits = HMM_SERVER_TRIANGULAR | HMM_SERVER_BANDED;

// --- registry (registry.cpp) ---

// Gives a record the lowest free id and links it; returns the id, or -1 when memory ran out (the
// record is then still the caller's). Constant time.
int KTRegisterHMMServer(HMMServer* server);

// Takes a record out of the list; the record becomes the caller's again, its id 0. Constant time.
void KTUnregisterHMMServer(HMMServer* server);

HMMServer* KTFindHMMServer(int id); // null for an unknown id, or when there is no registry

// Each output pointer may be null; an unknown id sets all to 0. `outputs` of a continuous server is
// its `mixtures`.
void KTGetHMMServerInfo(int id, int* tag, void** transitions, void** outputs, void** initials,
                        int* nStates, int* nSymbols, int* nQuant, int* scale, unsigned* status);

// Frees the registry, the codebooks included; every server and class is gone by then.
void KTFreeHMMRegistry();

// --- classes (classes.cpp) ---

// the next step delivers the first member
inline constexpr unsigned HMM_CLASS_REWOUND = 0x80000000u;
inline constexpr unsigned HMM_CLASS_AT_END = 0x40000000u; // the cursor has passed the last member
// What all members of a class have in common: output kind, numeric form and domain, with two bits
// beside the form's that only files may bring.
inline constexpr unsigned HMM_CLASS_KEY_MASK = hmmKindBits | hmmFormBits | 0xC0u | hmmDomainBits;
static_assert(HMM_CLASS_KEY_MASK == 0x00E000F3u);
inline constexpr int HMM_CHUNK_CAPACITY = 64;
inline constexpr int HMM_CHUNK_LAST_KEY = 0x1FFFFFFF;

struct HMMClassEntry {
    int id;
    HMMServer* server;
};

struct HMMClassChunk {
    int classId;
    HMMClassChunk* next;
    int maxKey; // the largest id that may fall in this chunk
    int count;
    HMMClassEntry entries[HMM_CHUNK_CAPACITY]; // by ascending id
};

struct HMMClass {
    int id;
    int reserved;
    HMMClass* next;
    HMMClass* prev;
    int nMembers;
    unsigned status; // cursor bits and, from the first member on, the key bits of its members
    HMMClassChunk* head;
    HMMClassChunk* cursorChunk;
    int cursorIndex;
    HMMClassChunk** chunks; // the chunks in their order, so that an id finds its own by halving
    int nChunks;
    int chunkRoom; // pointers that `chunks` has room for
};

HMMClass* KTFindHMMClass(int classId);
int KTResetHMMClass(int classId);  // rewinds the cursor: 1, or -1 for an unknown class
int KTNextHMMInClass(int classId); // the next member's id, 0 at the end, -1 for an unknown class
void KTFreeHMMClasses();           // all of the thread's classes

// The same steps on the record itself, for the evaluation loops: no lookup for each member.
void rewindHMMClass(HMMClass* group);
void removeFromHMMClass(HMMClass* group, int id); // nothing happens where the id is no member
HMMServer* nextHMMInClass(HMMClass* group);       // null at the end

// --- creation (KT_HMAN.cpp) ---

// Whether a server's mixtures are released, and copied, with it. Its status says so, except that a
// file's status word is kept as it is, and mixtures that are made for a server belong to it all the
// same.
inline bool ownsMixtures(const HMMServer* server) {
    return (server->status & HMM_SERVER_OWNS_MIXTURES) != 0 || server->holdsMixtures;
}

// Frees a record that is in no list, complete or half built. `mixtures` ends with a null entry.
// While the record is held, it stays, empty.
void ownFreeHMMRecord(HMMServer* server);

// A registered server over a report, whose handler may release it and make others under its id. A
// record that is held outlives its release as an empty one, so that its address stands for this
// server and no other.
//     const HeldHMMServer held(server);
//     module.report(...);
//     if (held.get() == nullptr) return ...; // nothing of the server may be touched
class HeldHMMServer {
public:
    HeldHMMServer() = default;
    explicit HeldHMMServer(const HMMServer* server) : record(const_cast<HMMServer*>(server)) {
        if (record != nullptr) ++record->nHolds;
    }
    HeldHMMServer(HeldHMMServer&& other) noexcept : record(std::exchange(other.record, nullptr)) {}
    HeldHMMServer& operator=(HeldHMMServer&& other) noexcept {
        std::swap(record, other.record);
        return *this;
    }
    ~HeldHMMServer() {
        if (record != nullptr && --record->nHolds == 0 && record->id == 0) std::free(record);
    }

    // The server, or null once it was released.
    HMMServer* get() const { return record != nullptr && record->id != 0 ? record : nullptr; }

private:
    HMMServer* record = nullptr;
};

// Registers a record that was built by other means than an Init: its id, or -1, with the record
// freed, when memory ran out. A negative status of the thread releases the new server; the id is
// returned all the same, unless a report's handler has given it to another server.
int ownRegisterComplete(HMMServer* server, int tag = 0);

// A zeroed record in no list; null when memory ran out.
HMMServer* ownNewHMMRecord();

// A mixture that scores like the source bit for bit: normalised weights are taken over instead of
// being computed again. Null for null, and after a report when memory ran out.
GaussMixServer* ownCopyMixture(const GaussMixServer* source);

// Frees an array of mixtures that ends with a null entry; null is allowed.
void ownFreeMixtures(GaussMixServer** mixtures);

// One mixture for each state, made by make(state); false when one, or the array, could not be had.
// What make reports comes to a handler that may release the server, so the server is not touched
// before all of them are there.
template <class Make>
bool ownFillMixtures(HMMServer* server, int nStates, Make make) {
    if (nStates < 0) return false;
    auto* mixtures = ktl::zeroed<GaussMixServer*>(std::size_t(nStates) + 1);
    if (mixtures == nullptr) return false;
    for (int i = 0; i < nStates; ++i) {
        mixtures[i] = make(i);
        if (mixtures[i] == nullptr) {
            ownFreeMixtures(mixtures);
            return false;
        }
    }
    server->mixtures = mixtures;
    return true;
}

// --- parameter setting (KT_HINT.cpp) ---

// Stores a model's arrays in the layouts of layout.h and commits tag, counts and status
// (topology included). `trans` and `out` are row tables of the form that the status says. Negative
// counts and status keep what the record holds, null arrays are left as they are. Failures show in
// the thread's status; an array for which memory ran out is silently missing, and nothing is
// committed then. False after a report, whose handler may have released the server and the caller's
// arrays.
bool KTSetHMMServerParm(int id, int tag, const void* trans, const void* out, const void* initial,
                        int nStates, int nSymbols, int status);
