// A recogniser of single words, built on ktlP6: trains and compares five kinds of models in float and in 16-bit fixed point.
//
//   words compare --corpus DIR                       trains on one part of a corpus, tests on the rest, writes report.html
//   words train --corpus DIR --models DIR            trains on all of it and stores the models
//   words recognise --models DIR FILE...             names the word of each recording
//   words features FILE [--output FILE.csv|.npy]     prints or writes its feature vectors
//
// Read on in the order of the road: audio, frontend, then dtw, discrete, semicontinuous, continuous, mlp.
#include "compare.h"
#include "models.h"
#include "report.h"
#include "table.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>

namespace {

using namespace words;

constexpr int exitOk = 0;
constexpr int exitBadInput = 2;

struct Options {
    std::string corpus, labels, models, recogniser, report = "report.html", output, leaveOut;
    std::vector<std::string> files;
    int testTakes = 0;
    bool fixed = false, noTrim = false, noDeltas = false, noMean = false, noVariance = false;

    FrontEnd frontEnd() const {
        return {
            .trim = !noTrim, .deltas = !noDeltas, .normaliseMean = !noMean, .normaliseVariance = !noVariance};
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

/// Each complaint is one line that names a file and what is wrong with it.
int finish(const std::vector<std::string>& complaints) {
    for (const std::string& complaint : complaints)
        fmt::print(stderr, "words: {}\n", complaint);
    return complaints.empty() ? exitOk : exitBadInput;
}

int runCompare(const Options& options) {
    std::vector<std::string> complaints;
    Progress progress;
    const Corpus corpus = readCorpus(options.corpus, options.labels, complaints);
    const FeatureExtractor extractor(options.frontEnd());
    const std::vector<Item> items = readItems(corpus.recordings, extractor, progress, complaints);
    const ComparisonPlan plan{options.frontEnd(),
                              options.testTakes > 0 ? options.testTakes : customaryTestTakes(corpus),
                              !options.leaveOut.empty(), options.recogniser};
    const Comparison comparison =
        onBehalfOf(options.corpus, [&] { return compare(items, plan, extractor, progress, complaints); });
    const std::string split = plan.leaveOutSpeaker
                                  ? "each speaker in turn is left out of the training and tested"
                                  : fmt::format("takes below {} are the test set", plan.testTakes);
    fmt::print("{} words, {} speakers, {} recordings; {}\n\n{}", comparison.words.size(),
               corpus.speakers.size(), items.size(), split, table(comparison));
    if (!options.report.empty()) {
        writeReport(options.report, comparison, extractor, split);
        fmt::print("\nThe report is in {}.\n", options.report);
    }
    return finish(complaints);
}

int runTrain(const Options& options) {
    std::vector<std::string> complaints;
    Progress progress;
    const Corpus corpus = readCorpus(options.corpus, options.labels, complaints);
    const FeatureExtractor extractor(options.frontEnd());
    const std::vector<Item> items = readItems(corpus.recordings, extractor, progress, complaints);
    if (items.empty()) {
        complaints.push_back(options.corpus + ": nothing to train from");
        return finish(complaints);
    }
    std::vector<const Item*> all;
    for (const Item& item : items)
        all.push_back(&item);
    const TrainingSet training = makeTrainingSet(all);

    ModelList list{options.frontEnd(), training.words, {}};
    const auto recognisers = makeRecognisers(options.recogniser);
    for (const auto& recogniser : recognisers)
        list.recognisers.push_back(recogniser->name());
    list.save(options.models);
    for (const auto& recogniser : recognisers) {
        onBehalfOf(options.corpus, [&] { recogniser->train(training, progress); });
        for (const Flavour flavour : flavours)
            saveModels(*recogniser, flavour, options.models);
    }
    progress.clear();
    fmt::print("{} recordings of {} words; models are in {}\n", items.size(), training.words.size(),
               options.models);
    return finish(complaints);
}

std::string chooseRecogniser(const Options& options, const ModelList& list) {
    const auto stored = [&](const std::string& name) {
        return std::find(list.recognisers.begin(), list.recognisers.end(), name) != list.recognisers.end();
    };
    if (options.recogniser.empty()) return stored("continuous") ? "continuous" : list.recognisers.front();
    if (!stored(options.recogniser)) throw Failure(options.models + ": no models for " + options.recogniser);
    return options.recogniser;
}

/// One line a recording: the word, how much worse the next one fits, and how long it took.
std::string recogniseFile(const std::string& file, Recogniser& recogniser, const Options& options,
                          const FeatureExtractor& extractor, const std::vector<std::string>& words) {
    const Samples samples = readRecording(file);
    const auto start = std::chrono::steady_clock::now();
    const std::vector<double> costs = options.fixed ? recogniser.costs(extractor.fixed(samples))
                                                    : recogniser.costs(extractor.real(samples));
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    std::vector<std::size_t> order(costs.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return costs[a] < costs[b]; });
    if (!std::isfinite(costs[order[0]])) throw Failure("no word fits");
    std::string line = fmt::format("{}: {}, cost {:.2f}", file, words[order[0]], costs[order[0]]);
    if (order.size() > 1) line += fmt::format("; next {}, cost {:.2f}", words[order[1]], costs[order[1]]);
    return line + fmt::format("; {:.2f} ms", time.count());
}

int runRecognise(const Options& options) {
    const ModelList list = ModelList::load(options.models);
    const auto recogniser = std::move(makeRecognisers(chooseRecogniser(options, list)).front());
    loadModels(*recogniser, options.fixed ? Flavour::fixed : Flavour::real, options.models, list);
    const FeatureExtractor extractor(list.frontEnd);
    std::vector<std::string> complaints;
    for (const std::string& file : options.files)
        try {
            fmt::print("{}\n", recogniseFile(file, *recogniser, options, extractor, list.words));
        } catch (const Failure& failure) {
            const std::string text = failure.what();
            complaints.push_back(text.starts_with(file) ? text : file + ": " + text);
        }
    return finish(complaints);
}

int runFeatures(const Options& options) {
    const FeatureExtractor extractor(options.frontEnd());
    const Samples samples = readRecording(options.files.front());
    const auto write = [&](const auto& features) {
        if (options.output.empty())
            fmt::print("{}", asText(features));
        else
            writeTable(options.output, features);
    };
    options.fixed ? write(extractor.fixed(samples)) : write(extractor.real(samples));
    return exitOk;
}

void addFrontEnd(CLI::App& command, Options& options) {
    command.add_flag("--no-trim", options.noTrim, "keep silence at both ends");
    command.add_flag("--no-deltas", options.noDeltas, "cepstra alone, without their motion");
    command.add_flag("--no-mean", options.noMean, "keep each feature's mean over the utterance");
    command.add_flag("--no-variance", options.noVariance, "keep each feature's deviation");
}

void addCorpus(CLI::App& command, Options& options) {
    command
        .add_option("--corpus", options.corpus, "folder of recordings, WORD_SPEAKER_TAKE.wav, .flac or .ogg")
        ->required();
    command.add_option("--labels", options.labels,
                       "lines of FILE WORD [SPEAKER [TAKE]], in place of names that tell");
    command.add_option("--recogniser", options.recogniser,
                       "one of dtw, discrete, semicontinuous, continuous, mlp");
    addFrontEnd(command, options);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Recognises single words with the models of ktlP6");
    app.require_subcommand(1);

    CLI::App& compareCommand = *app.add_subcommand("compare", "train, test and compare all recognisers");
    addCorpus(compareCommand, options);
    compareCommand.add_option("--test-takes", options.testTakes, "takes below this number are the test set")
        ->check(CLI::PositiveNumber);
    compareCommand
        .add_option("--leave-out", options.leaveOut,
                    "'speaker': train without each one and test on him or her")
        ->check(CLI::IsMember({"speaker"}));
    compareCommand.add_option("--report", options.report, "the page to write; '' for none")->take_last();

    CLI::App& train = *app.add_subcommand("train", "train on a corpus and store the models");
    addCorpus(train, options);
    train.add_option("--models", options.models, "folder for the models")->required();

    CLI::App& recognise = *app.add_subcommand("recognise", "name the word of each recording");
    recognise.add_option("--models", options.models, "folder of models")->required();
    recognise.add_option("--recogniser", options.recogniser, "which of the stored ones");
    recognise.add_flag("--fixed", options.fixed, "in 16-bit fixed point");
    recognise.add_option("files", options.files, "recordings")->required();

    CLI::App& features = *app.add_subcommand("features", "print or write the feature vectors of a recording");
    features.add_option("file", options.files, "the recording")->required()->expected(1);
    features.add_option("--output", options.output, "FILE.csv or FILE.npy in place of the terminal");
    features.add_flag("--fixed", options.fixed, "in 16-bit fixed point");
    addFrontEnd(features, options);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitOk : exitBadInput;
    }

    quietLibrary();
    KTSetHMMMode(KT_HMM_KEEP); // conversions leave their source to its owner
    int code = exitBadInput;
    try {
        code = compareCommand.parsed() ? runCompare(options)
               : train.parsed()        ? runTrain(options)
               : recognise.parsed()    ? runRecognise(options)
                                       : runFeatures(options);
    } catch (const std::exception& failure) {
        fmt::print(stderr, "words: {}\n", failure.what());
    }
    releaseLibrary();
    return code;
}
