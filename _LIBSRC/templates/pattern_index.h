// Where a pattern store finds its records by handle, beside the list that keeps their order:
// creating, finding and releasing a pattern take as long among 100,000 as among ten.
#pragma once

#include "frame/id_table.h"

#include <utility>

namespace ktl::dtw {

template <class Pattern>
class PatternIndex;

// What the index keeps in a record.
template <class Pattern>
struct PatternLinks {
    PatternIndex<Pattern>* index; // of the record's store
    // The ring of records with the same handle, in the order of the list. Only files make any, and
    // the oldest is the one that is found.
    Pattern* nextTwin;
    Pattern* prevTwin;
    Pattern* branches[2]; // of the tree of far handles
};

// Handles that a store gives out are near ones, in a table. Files bring any: those without a place
// in the table are far, in a tree that goes by the bits of a handle, the lowest first. It is 33
// levels deep at most, needs no memory of its own, and no choice of handles makes it slow.
template <class Pattern>
class PatternIndex {
public:
    Pattern* find(int handle) const {
        return table.covers(handle) ? table.find(handle) : *farPlace(handle);
    }

    // Makes room for one record more under any handle; `head` is the list's. False, and nothing is
    // changed, when memory ran out.
    bool reserve(Pattern* head) {
        const int before = table.capacity();
        if (before > size + 1) return true; // of size + 1 handles from 1 on, one is free
        if (!table.grow()) return false;
        for (Pattern* p = head; p != nullptr; p = p->next)
            if (p->handle >= before && table.covers(p->handle)) bringNear(p);
        return true;
    }

    // The smallest free handle; there is room for one record.
    int freeHandle() { return table.lowestFree(); }

    void enter(Pattern* record) {
        Pattern* const oldest = find(record->handle);
        if (oldest == nullptr) setPlace(record->handle, record);
        Pattern* const after = oldest != nullptr ? oldest : record;
        Pattern* const before = oldest != nullptr ? oldest->links.prevTwin : record;
        record->links.nextTwin = after;
        record->links.prevTwin = before;
        before->links.nextTwin = after->links.prevTwin = record;
        ++size;
    }

    void remove(Pattern* record) {
        Pattern* const next = record->links.nextTwin;
        if (find(record->handle) == record) replace(record, next != record ? next : nullptr);
        next->links.prevTwin = record->links.prevTwin;
        record->links.prevTwin->links.nextTwin = next;
        --size;
    }

    void release() { table.release(); }

    Pattern* tail; // of the list

private:
    // The pointer that leads to the record of a far handle; where there is none, the null that one
    // would replace.
    Pattern** farPlace(int handle) const {
        Pattern** place = const_cast<Pattern**>(&root);
        for (unsigned bits = unsigned(handle); *place != nullptr && (*place)->handle != handle;
             bits >>= 1)
            place = &(*place)->links.branches[bits & 1];
        return place;
    }

    void setPlace(int handle, Pattern* record) {
        if (table.covers(handle))
            table.set(handle, record);
        else
            *farPlace(handle) = record;
    }

    static Pattern** leafOf(Pattern** place) {
        for (;;) {
            Pattern** const branches = (*place)->links.branches;
            if (branches[0] == nullptr && branches[1] == nullptr) return place;
            place = branches[0] != nullptr ? &branches[0] : &branches[1];
        }
    }

    // Takes a record out of the tree: any leaf from above it may stand in its place.
    static void uproot(Pattern** place) {
        Pattern* const record = *place;
        Pattern** const end = leafOf(place);
        Pattern* const leaf = std::exchange(*end, nullptr);
        if (leaf == record) return;
        moveBranches(record, leaf);
        *place = leaf;
    }

    static void moveBranches(Pattern* from, Pattern* to) {
        for (int bit = 0; bit < 2; ++bit) {
            to->links.branches[bit] = from->links.branches[bit];
            from->links.branches[bit] = nullptr;
        }
    }

    // `twin`, of the same handle, is found from now on; nothing where it is null.
    void replace(Pattern* record, Pattern* twin) {
        if (table.covers(record->handle)) {
            table.set(record->handle, twin);
            return;
        }
        Pattern** const place = farPlace(record->handle);
        if (twin == nullptr) {
            uproot(place);
            return;
        }
        moveBranches(record, twin);
        *place = twin;
    }

    // After the table has grown. Younger twins are not in the tree.
    void bringNear(Pattern* record) {
        Pattern** const place = farPlace(record->handle);
        if (*place != record) return;
        uproot(place);
        table.set(record->handle, record);
    }

    IdTable<Pattern> table; // of the near handles
    Pattern* root;          // of the tree
    int size;               // number of records, which the store's count may exceed
};

} // namespace ktl::dtw
