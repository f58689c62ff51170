#include "compare.h"

#include "files.h"
#include "models.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>

namespace words {
namespace {

namespace fs = std::filesystem;

using Items = std::vector<const Item*>;

/// A folder for models that only their size is wanted of.
class TemporaryFolder {
public:
    TemporaryFolder() : path((fs::temp_directory_path() / "words-XXXXXX").string()) {
        if (mkdtemp(path.data()) == nullptr)
            throw Failure(path + ": could not be made" + systemCause());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::uintmax_t sizeOf(const Recogniser& recogniser, Flavour flavour) const {
        saveModels(recogniser, flavour, path);
        std::uintmax_t bytes = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
            bytes += entry.file_size();
            fs::remove(entry.path());
        }
        return bytes;
    }

private:
    std::string path;
};

struct Fold {
    std::string name;
    Items training;
    Items test;
};

Fold split(const std::vector<Item>& items, const std::string& name,
           const std::function<bool(const Recording&)>& isTest) {
    Fold fold;
    fold.name = name;
    for (const Item& item : items)
        (isTest(item.recording) ? fold.test : fold.training).push_back(&item);
    if (fold.training.empty() || fold.test.empty())
        throw Failure(fmt::format("the corpus leaves {} recordings for training and {} for testing",
                                  fold.training.size(), fold.test.size()));
    return fold;
}

std::vector<Fold> makeFolds(const std::vector<Item>& items, const ComparisonPlan& plan) {
    std::vector<Fold> folds;
    if (!plan.leaveOutSpeaker) {
        folds.push_back(
            split(items, "", [&](const Recording& r) { return r.take < plan.testTakes; }));
        return folds;
    }
    std::set<std::string> speakers;
    for (const Item& item : items)
        speakers.insert(item.recording.speaker);
    for (const std::string& speaker : speakers)
        folds.push_back(
            split(items, speaker, [&](const Recording& r) { return r.speaker == speaker; }));
    return folds;
}

/// Test recordings whose word the training part does not have are left out.
void dropUnknown(Fold& fold, const std::vector<std::string>& words,
                 std::vector<std::string>& complaints) {
    std::erase_if(fold.test, [&](const Item* item) {
        const bool known = std::binary_search(words.begin(), words.end(), item->recording.word);
        if (!known)
            complaints.push_back(fmt::format("{}: unknown label '{}', no training recording has it",
                                             item->recording.path, item->recording.word));
        return !known;
    });
}

int indexOf(const std::vector<std::string>& words, const std::string& word) {
    return static_cast<int>(std::lower_bound(words.begin(), words.end(), word) - words.begin());
}

/// What the training said of answers.
struct Limits {
    CostScale scale;
    double leastSpread = 0.0;
};

int recogniseSamples(Recogniser& recogniser, Flavour flavour, const FeatureExtractor& extractor,
                     const Samples& samples, const Limits& limits) {
    if (levelSpread(extractor.speech(samples)) < limits.leastSpread) return -1;
    const Answer answer = flavour == Flavour::real ? recogniser.recognise(extractor.real(samples))
                                                   : recogniser.recognise(extractor.fixed(samples));
    return limits.scale.admits(answer.cost) ? answer.word : -1;
}

void test(Recogniser& recogniser, Flavour flavour, const Fold& fold,
          const std::vector<std::string>& words, const FeatureExtractor& extractor,
          const Limits& limits, Progress& progress, Outcome& outcome) {
    const int nWords = static_cast<int>(words.size());
    if (outcome.confusion.empty()) outcome.confusion = Matrix<int>(nWords, nWords + 1);
    int right = 0, done = 0;
    for (const Item* item : fold.test) {
        progress.show(fmt::format("testing {} in {}", recogniser.title(), flavourName(flavour)),
                      done++, static_cast<int>(fold.test.size()));
        const std::clock_t start =
            std::clock(); // processor time: that of one core, whatever else the machine does
        const int answer = recogniseSamples(recogniser, flavour, extractor, item->samples, limits);
        outcome.workSeconds += static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        const int spoken = indexOf(words, item->recording.word);
        ++outcome.confusion.row(spoken)[answer < 0 ? nWords : answer];
        right += answer == spoken ? 1 : 0;
    }
    outcome.right += right;
    outcome.total += static_cast<int>(fold.test.size());
    if (!fold.name.empty())
        outcome.shares.push_back(
            {fold.name, 100.0 * right / std::max(1.0, static_cast<double>(fold.test.size()))});
}

void showExamples(Recogniser& recogniser, Flavour flavour, const CostScale& scale,
                  const Items& examples, Result& result) {
    const auto place = static_cast<std::size_t>(flavour);
    result.limits[place] = scale.forPeople(scale.limit);
    for (const Item* example : examples) {
        std::vector<double> costs = flavour == Flavour::real
                                        ? recogniser.costs(example->features.real)
                                        : recogniser.costs(example->features.fixed);
        for (double& cost : costs)
            cost = scale.forPeople(cost);
        result.exampleCosts[place].push_back(std::move(costs));
    }
}

} // namespace

std::vector<Item> readItems(const std::vector<Recording>& recordings,
                            const FeatureExtractor& extractor, Progress& progress,
                            std::vector<std::string>& complaints) {
    std::vector<Item> items;
    int done = 0;
    for (const Recording& recording : recordings) {
        progress.show("reading recordings", done++, static_cast<int>(recordings.size()));
        try {
            Item item{recording, readRecording(recording.path), 0.0, {}};
            item.features.real = extractor.real(item.samples);
            item.features.fixed = extractor.fixed(item.samples);
            item.spread = levelSpread(extractor.speech(item.samples));
            items.push_back(std::move(item));
        } catch (const Failure& failure) {
            // failures of the front end do not know the file
            const std::string text = failure.what();
            complaints.push_back(text.starts_with(recording.path) ? text
                                                                  : recording.path + ": " + text);
        }
    }
    return items;
}

TrainingSet makeTrainingSet(const std::vector<const Item*>& items) {
    TrainingSet training;
    std::set<std::string> words;
    for (const Item* item : items)
        words.insert(item->recording.word);
    training.words.assign(words.begin(), words.end());
    for (const Item* item : items) {
        training.utterances.push_back(item->features);
        training.utterances.back().word = indexOf(training.words, item->recording.word);
    }
    return training;
}

double leastSpreadOf(const std::vector<const Item*>& items) {
    std::vector<double> spreads;
    for (const Item* item : items)
        spreads.push_back(item->spread);
    return findLeastSpread(std::move(spreads));
}

Comparison compare(const std::vector<Item>& items, const ComparisonPlan& plan,
                   const FeatureExtractor& extractor, Progress& progress,
                   std::vector<std::string>& complaints) {
    const TemporaryFolder folder;
    Comparison comparison;
    std::vector<Fold> folds = makeFolds(items, plan);
    for (Fold& fold : folds) {
        const TrainingSet training = makeTrainingSet(fold.training);
        const double leastSpread = leastSpreadOf(fold.training);
        const bool first = comparison.words.empty();
        if (first) comparison.words = training.words;
        if (training.words != comparison.words)
            throw Failure("not every word was spoken by at least two speakers");
        dropUnknown(fold, comparison.words, complaints);
        comparison.nTraining += static_cast<int>(fold.training.size());
        comparison.nTest += static_cast<int>(fold.test.size());
        for (const Item* item : fold.test)
            comparison.testSeconds += seconds(item->samples);
        for (const std::string& word : comparison.words) {
            const auto example =
                std::find_if(fold.test.begin(), fold.test.end(),
                             [&](const Item* item) { return item->recording.word == word; });
            if (first && example != fold.test.end()) comparison.examples.push_back(*example);
        }

        std::size_t place = 0;
        for (const std::unique_ptr<Recogniser>& recogniser : makeRecognisers(plan.recogniser)) {
            recogniser->train(training, progress);
            if (first)
                comparison.results.push_back({recogniser->name(), recogniser->title(), {}, {}, {}});
            Result& result = comparison.results[place++];
            for (const Flavour flavour : flavours) {
                Outcome& outcome = result.outcomes[static_cast<std::size_t>(flavour)];
                const Limits limits{findScale(*recogniser, flavour, training), leastSpread};
                test(*recogniser, flavour, fold, comparison.words, extractor, limits, progress,
                     outcome);
                outcome.bytes = folder.sizeOf(*recogniser, flavour);
                if (first)
                    showExamples(*recogniser, flavour, limits.scale, comparison.examples, result);
            }
        }
    }
    comparison.nTraining /= static_cast<int>(folds.size());
    progress.clear();
    return comparison;
}

std::string table(const Comparison& comparison) {
    std::string text = fmt::format("{:24}|{:^46}|{:^46}\n", "", "float", "16-bit fixed point");
    const std::string heading = fmt::format("{:>6} {:>6} {:>8} {:>8} {:>8} {:>5}", "right", "wrong",
                                            "%", "us/word", "x real", "KB");
    text += fmt::format("{:24}| {} | {}\n", "", heading, heading);
    text += std::string(24, '-') + "+" + std::string(47, '-') + "+" + std::string(47, '-') + "\n";
    for (const Result& result : comparison.results) {
        text += fmt::format("{:24}", result.title);
        for (const Outcome& outcome : result.outcomes)
            text += fmt::format("| {:6} {:6} {:8.2f} {:8.0f} {:8.0f} {:5.0f} ", outcome.right,
                                outcome.errors(), outcome.accuracy(), outcome.microseconds(),
                                comparison.timesRealTime(outcome),
                                static_cast<double>(outcome.bytes) / 1024.0);
        text += "\n";
        const auto& [real, fixed] = result.outcomes;
        for (std::size_t i = 0; i < real.shares.size(); ++i)
            text +=
                fmt::format("{:24}|{:23.2f}{:24}|{:23.2f}\n", "  without " + real.shares[i].speaker,
                            real.shares[i].percent, "", fixed.shares[i].percent);
    }
    return text;
}

} // namespace words
