// A recogniser of single words, built on ktlP6: trains and compares five kinds of models in float
// and in 16-bit fixed point.
//
//   words compare --corpus DIR                       trains on one part of a corpus, tests on the
//   rest, writes report.html
//   words train --corpus DIR --models DIR            trains on all of it and stores the models
//   words recognise --models DIR FILE...             names the word of each recording
//   words features FILE [--output FILE.csv|.npy]     prints or writes its feature vectors
//
// Read on in the order of the road: audio, frontend, then dtw, discrete, semicontinuous,
// continuous, mlp.
#include "compare.h"
#include "files.h"
#include "models.h"
#include "report.h"
#include "table.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <sstream>

namespace {

using namespace words;

constexpr int exitOk = 0;
constexpr int exitBadInput = 2;

struct Options {
    std::string corpus, labels, models, recogniser, report = "report.html", output, leaveOut;
    std::vector<std::string> files;
    int testTakes = 0;
    bool fixed = false, noTrim = false, noDeltas = false, noMean = false, noVariance = false;

    Flavour flavour() const { return fixed ? Flavour::fixed : Flavour::real; }
    FrontEnd frontEnd() const {
        return {.trim = !noTrim,
                .deltas = !noDeltas,
                .normaliseMean = !noMean,
                .normaliseVariance = !noVariance};
    }
};

/// What goes wrong behind the reading of files is told of the corpus.
template <class Work>
auto onBehalfOf(const std::string& corpus, Work work) {
    try {
        return work();
    } catch (const Failure& failure) {
        throw Failure(corpus + ": " + failure.what());
    }
}

using Complaints = std::vector<std::string>;

/// The error stream is the last resort: that it can't be written is told to nobody.
void tell(const std::string& text) {
    std::fputs(("words: " + text + "\n").c_str(), stderr);
}

void runCompare(const Options& options, Complaints& complaints) {
    Progress progress;
    const Corpus corpus = readCorpus(options.corpus, options.labels, complaints);
    const FeatureExtractor extractor(options.frontEnd());
    const std::vector<Item> items = readItems(corpus.recordings, extractor, progress, complaints);
    const ComparisonPlan plan{
        options.frontEnd(), options.testTakes > 0 ? options.testTakes : customaryTestTakes(corpus),
        !options.leaveOut.empty(), options.recogniser};
    const Comparison comparison = onBehalfOf(
        options.corpus, [&] { return compare(items, plan, extractor, progress, complaints); });
    const std::string split = plan.leaveOutSpeaker
                                  ? "each speaker in turn is left out of the training and tested"
                                  : fmt::format("takes below {} are the test set", plan.testTakes);
    printOut(fmt::format("{} words, {} speakers, {} recordings; {}\n\n{}", comparison.words.size(),
                         corpus.speakers.size(), items.size(), split, table(comparison)));
    if (!options.report.empty()) {
        writeReport(options.report, comparison, extractor, split);
        printOut(fmt::format("\nThe report is in {}.\n", options.report));
    }
}

/// Models are trained and written before any of them takes the place of an older one.
void trainAll(const TrainingSet& training, ModelList& list, const Options& options,
              Progress& progress) {
    const auto recognisers = makeRecognisers(options.recogniser);
    for (const auto& recogniser : recognisers) {
        onBehalfOf(options.corpus, [&] { recogniser->train(training, progress); });
        list.recognisers.push_back(recogniser->name());
        for (const Flavour flavour : flavours)
            list.scales[{recogniser->name(), flavour}] = findScale(*recogniser, flavour, training);
    }
    NewFolder folder(options.models);
    for (const auto& recogniser : recognisers)
        for (const Flavour flavour : flavours)
            saveModels(*recogniser, flavour, folder.path());
    list.save(folder.path());
    checkReplaceable(options.models);
    folder.putInPlace();
}

void runTrain(const Options& options, Complaints& complaints) {
    Progress progress;
    checkReplaceable(options.models);
    const Corpus corpus = readCorpus(options.corpus, options.labels, complaints);
    const FeatureExtractor extractor(options.frontEnd());
    const std::vector<Item> items = readItems(corpus.recordings, extractor, progress, complaints);
    if (items.empty()) throw Failure(options.corpus + ": nothing to train from");
    std::vector<const Item*> all;
    for (const Item& item : items)
        all.push_back(&item);
    const TrainingSet training = makeTrainingSet(all);

    ModelList list;
    list.frontEnd = options.frontEnd();
    list.words = training.words;
    list.leastSpread = leastSpreadOf(all);
    trainAll(training, list, options, progress);
    progress.clear();
    printOut(fmt::format("{} recordings of {} words; models are in {}\n", items.size(),
                         training.words.size(), options.models));
}

std::string chooseRecogniser(const Options& options, const ModelList& list) {
    const auto stored = [&](const std::string& name) {
        return std::find(list.recognisers.begin(), list.recognisers.end(), name) !=
               list.recognisers.end();
    };
    if (options.recogniser.empty())
        return stored("continuous") ? "continuous" : list.recognisers.front();
    if (!stored(options.recogniser))
        throw Failure(options.models + ": no models for " + options.recogniser);
    return options.recogniser;
}

/// Words in the order of their costs.
std::vector<std::size_t> ranking(const std::vector<double>& costs) {
    std::vector<std::size_t> order(costs.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return costs[a] < costs[b]; });
    return order;
}

/// What fits best and what next, or "none" where the training says that nothing does.
std::string answer(const std::vector<double>& costs, bool isSpeech, const CostScale& scale,
                   const std::vector<std::string>& words) {
    if (!isSpeech) return "none, no speech in it";
    const std::vector<std::size_t> order = ranking(costs);
    const auto withCost = [&](std::size_t place) {
        return fmt::format("{}, cost {:.0f}", words[order[place]],
                           scale.forPeople(costs[order[place]]));
    };
    if (!scale.admits(costs[order[0]]))
        return fmt::format("none, no word fits; nearest {} of {:.0f}", withCost(0),
                           scale.forPeople(scale.limit));
    return order.size() > 1 ? withCost(0) + "; next " + withCost(1) : withCost(0);
}

/// One line a recording: the word, how much worse the next one fits, and how long it took.
std::string recogniseFile(const std::string& file, Recogniser& recogniser, const Options& options,
                          const FeatureExtractor& extractor, const ModelList& list) {
    const Samples samples = readRecording(file);
    const auto start = std::chrono::steady_clock::now();
    const std::vector<double> costs = options.fixed ? recogniser.costs(extractor.fixed(samples))
                                                    : recogniser.costs(extractor.real(samples));
    const bool isSpeech = levelSpread(extractor.speech(samples)) >= list.leastSpread;
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    return fmt::format(
        "{}: {}; {:.2f} ms\n", file,
        answer(costs, isSpeech, list.scale(recogniser.name(), options.flavour()), list.words),
        time.count());
}

void runRecognise(const Options& options, Complaints& complaints) {
    const std::string folder = existingFolder(options.models);
    const ModelList list = ModelList::load(folder);
    const auto recogniser = std::move(makeRecognisers(chooseRecogniser(options, list)).front());
    loadModels(*recogniser, options.flavour(), folder, list);
    const FeatureExtractor extractor(list.frontEnd);
    for (const std::string& file : options.files) {
        std::string line;
        try {
            line = recogniseFile(file, *recogniser, options, extractor, list);
        } catch (const Failure& failure) {
            const std::string text = failure.what();
            complaints.push_back(text.starts_with(file) ? text : file + ": " + text);
        }
        printOut(line);
    }
}

void runFeatures(const Options& options) {
    const FeatureExtractor extractor(options.frontEnd());
    const Samples samples = readRecording(options.files.front());
    const auto write = [&](const auto& features) {
        if (options.output.empty())
            printOut(asText(features));
        else
            writeTable(options.output, features);
    };
    options.fixed ? write(extractor.fixed(samples)) : write(extractor.real(samples));
}

/// Runs the work and says what went wrong: first what was found on the way, then what ended it.
template <class Work>
int run(Work work) {
    Complaints complaints;
    std::string end;
    try {
        work(complaints);
        flushOutput();
    } catch (const std::exception& failure) {
        end = failure.what();
    }
    for (const std::string& complaint : complaints)
        tell(complaint);
    if (!end.empty()) tell(end);
    return complaints.empty() && end.empty() ? exitOk : exitBadInput;
}

void addFrontEnd(CLI::App& command, Options& options) {
    command.add_flag("--no-trim", options.noTrim, "keep silence at both ends");
    command.add_flag("--no-deltas", options.noDeltas, "cepstra alone, without their motion");
    command.add_flag("--no-mean", options.noMean, "keep each feature's mean over the utterance");
    command.add_flag("--no-variance", options.noVariance, "keep each feature's deviation");
}

void addCorpus(CLI::App& command, Options& options) {
    command
        .add_option("--corpus", options.corpus,
                    "folder of recordings, WORD_SPEAKER_TAKE.wav, .flac or .ogg")
        ->required();
    command.add_option("--labels", options.labels,
                       "lines of FILE WORD [SPEAKER [TAKE]], in place of names that tell");
    command
        .add_option("--recogniser", options.recogniser,
                    "one of dtw, discrete, semicontinuous, continuous, mlp")
        ->default_str("all");
    addFrontEnd(command, options);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Recognises single words with the models of ktlP6");
    app.require_subcommand(1);
    app.set_version_flag("--version", "words of ktlP6 " WORDS_VERSION);

    CLI::App& compareCommand =
        *app.add_subcommand("compare", "train, test and compare all recognisers");
    addCorpus(compareCommand, options);
    compareCommand
        .add_option("--test-takes", options.testTakes, "takes below this number are the test set")
        ->check(CLI::Range(1, 1000000))
        ->default_str("5, or a third of fewer than 15");
    compareCommand
        .add_option("--leave-out", options.leaveOut,
                    "'speaker': train without each one and test on him or her")
        ->check(CLI::IsMember({"speaker"}));
    compareCommand.add_option("--report", options.report, "the page to write; '' for none")
        ->take_last()
        ->capture_default_str();

    CLI::App& train = *app.add_subcommand("train", "train on a corpus and store the models");
    addCorpus(train, options);
    train.add_option("--models", options.models, "folder for the models; those in it are replaced")
        ->required();

    CLI::App& recognise = *app.add_subcommand("recognise", "name the word of each recording");
    recognise.add_option("--models", options.models, "folder of models")->required();
    recognise.add_option("--recogniser", options.recogniser, "which of the stored ones")
        ->default_str("continuous, or the first");
    recognise.add_flag("--fixed", options.fixed, "in 16-bit fixed point");
    recognise.add_option("files", options.files, "recordings")->required();

    CLI::App& features =
        *app.add_subcommand("features", "print or write the feature vectors of a recording");
    features.add_option("file", options.files, "the recording")->required()->expected(1);
    features.add_option("--output", options.output, "FILE.csv or FILE.npy")
        ->default_str("the terminal");
    features.add_flag("--fixed", options.fixed, "in 16-bit fixed point");
    addFrontEnd(features, options);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream out, errors;
        const bool asked = app.exit(error, out, errors) == 0; // for help or the version
        std::fputs(errors.str().c_str(), stderr);
        return asked ? run([&](Complaints&) { printOut(out.str()); }) : exitBadInput;
    }

    quietLibrary();
    KTSetHMMMode(KT_HMM_KEEP); // conversions leave their source to its owner
    const int code = run([&](Complaints& complaints) {
        compareCommand.parsed() ? runCompare(options, complaints)
        : train.parsed()        ? runTrain(options, complaints)
        : recognise.parsed()    ? runRecognise(options, complaints)
                                : runFeatures(options);
    });
    releaseLibrary();
    return code;
}
