// Registering and releasing many models: the time for each has to stay the same whatever their
// number. The peer is a user's table of records by their lowest free number.
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct Ours {
    const int items;
    bool isLowestFirst;
    Ours(int count, bool lowestFirst) : items(count), isLowestFirst(lowestFirst) {}
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    ~Ours() { KTHMMFreeAll(); }
    int last = 0;
    void run() {
        const float zero = 0;
        const float* row = &zero;
        for (int k = 0; k < items; ++k)
            last = KTsInitHMMServer(&row, &row, &zero, 1, 1, 0);
        for (int k = 1; k <= items; ++k)
            KTFreeHMMServer(isLowestFirst ? k : items + 1 - k);
    }
    bench::Values results() const { return {double(last)}; }
};

// A model of one state: its three arrays and its sizes.
struct Record {
    std::vector<float> transitions, outputs, initials;
    int nStates = 1, nSymbols = 1;
};

struct Map {
    const int items;
    bool isLowestFirst;
    std::unordered_map<int, std::unique_ptr<Record>> records;
    std::set<int> freed; // numbers up to the highest one given out
    int highest = 0, last = 0;
    Map(int count, bool lowestFirst) : items(count), isLowestFirst(lowestFirst) {}

    int add() {
        auto record = std::make_unique<Record>();
        for (auto* values : {&record->transitions, &record->outputs, &record->initials})
            values->assign(1, 0.0f);
        const int id = freed.empty() ? ++highest : *freed.begin();
        freed.erase(id);
        records.emplace(id, std::move(record));
        return id;
    }
    void release(int id) {
        records.erase(id);
        freed.insert(id);
    }
    void run() {
        for (int k = 0; k < items; ++k)
            last = add();
        for (int k = 1; k <= items; ++k)
            release(isLowestFirst ? k : items + 1 - k);
    }
    bench::Values results() const { return {double(last)}; }
};

const int registered = [] {
    for (const int count : {10000, 100000})
        for (const bool lowestFirst : {true, false}) {
            const std::string order = lowestFirst ? "lowest-first/" : "lowest-last/";
            bench::Row("registry/" + order + std::to_string(count), [=] {
                return Ours(count, lowestFirst);
            }).peer("map", 0, [=] { return Map(count, lowestFirst); });
        }
    return 0;
}();

} // namespace
