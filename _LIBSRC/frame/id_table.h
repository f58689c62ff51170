// Records by a positive id: found, entered and taken out in constant time, the lowest free id at
// hand. It stands beside a list, which keeps the order and owns the records.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ktl {

// Memory filled with zeros is an empty table. Which ids are taken is one bit each; a second row of
// bits tells which words of the first are full, so that the lowest free id is a scan of few words
// even among very many records.
template <class Record>
class IdTable {
public:
    // Ids 1 to capacity() - 1 have a place.
    int capacity() const { return places; }
    bool covers(int id) const { return id > 0 && id < places; }
    Record* find(int id) const { return covers(id) ? byId[id] : nullptr; }

    // Enters a record under an id that has a place, or takes it out with null.
    void set(int id, Record* record) {
        const int word = id / idsPerWord;
        byId[id] = record;
        put(taken[word], id % idsPerWord, record != nullptr);
        put(fullWords[word / idsPerWord], word % idsPerWord, taken[word] == ~std::uint64_t(0));
        if (record == nullptr && id < allTakenBelow) allTakenBelow = id;
    }

    // The lowest id without a record; capacity() where all places are taken.
    int lowestFree() {
        for (int group = allTakenBelow / idsPerGroup; group * idsPerGroup < places; ++group) {
            const int inGroup = std::countr_one(fullWords[group]);
            const int word = group * idsPerWord + inGroup;
            if (inGroup == idsPerWord || word * idsPerWord >= places) continue;
            return allTakenBelow = word * idsPerWord + std::countr_one(taken[word]);
        }
        return allTakenBelow = places;
    }

    // Doubles the table; false, and nothing is changed, when memory ran out.
    bool grow() {
        if (places > most / 2) return false;
        IdTable grown{};
        if (!grown.allocate(places == 0 ? idsPerWord : 2 * places)) return false;
        if (places == 0)
            grown.taken[0] = 1; // 0 is no id
        else
            grown.copyFrom(*this);
        std::free(byId);
        *this = grown;
        return true;
    }

    void release() {
        std::free(byId);
        *this = IdTable{};
    }

private:
    static constexpr int idsPerWord = 64, idsPerGroup = idsPerWord * idsPerWord;
    static constexpr int most = 1 << 30;

    // All three arrays are one block.
    bool allocate(int count) {
        const std::size_t words = std::size_t(count) / idsPerWord;
        byId = static_cast<Record**>(
            std::calloc(words, idsPerWord * sizeof(Record*) + 2 * sizeof(std::uint64_t)));
        if (byId == nullptr) return false;
        taken = reinterpret_cast<std::uint64_t*>(byId + count);
        fullWords = taken + words;
        places = count;
        return true;
    }

    void copyFrom(const IdTable& other) {
        const std::size_t words = std::size_t(other.places) / idsPerWord;
        std::memcpy(byId, other.byId, std::size_t(other.places) * sizeof(Record*));
        std::memcpy(taken, other.taken, words * sizeof(std::uint64_t));
        std::memcpy(fullWords, other.fullWords, words * sizeof(std::uint64_t));
        allTakenBelow = other.allTakenBelow;
    }

    static void put(std::uint64_t& word, int at, bool value) {
        const std::uint64_t bit = std::uint64_t(1) << at;
        word = value ? word | bit : word & ~bit;
    }

    int places;        // a multiple of 64
    int allTakenBelow; // every id below it has a record
    Record** byId;
    std::uint64_t* taken;
    std::uint64_t* fullWords;
};

} // namespace ktl
