// The word recogniser from outside, as its users see it, and its parts where the outside does not
// tell enough.
#include "compare.h"
#include "costs.h"
#include "files.h"
#include "frontend.h"
#include "models.h"
#include "table.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <sys/wait.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numbers>
#include <random>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using namespace words;

struct Told {
    int code = -1;
    std::string out;
    std::string errors;
};

std::string contents(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

/// A folder for what a test makes.
class Words : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "words-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override { fs::remove_all(folder); }

    Told run(const std::string& arguments) const {
        const fs::path out = folder / "out", errors = folder / "errors";
        const std::string command = "cd '" + folder.string() + "' && " + WORDS_PROGRAM + " " +
                                    arguments + " >'" + out.string() + "' 2>'" + errors.string() +
                                    "'";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(out), contents(errors)};
    }

    // / Four words of four speakers of the shipped corpus: 80 recordings, of which take 0, 16, is
    // the test set.
    fs::path slice() const {
        const fs::path corpus = folder / "slice";
        fs::create_directory(corpus);
        for (const char* word : {"one", "seven", "three", "zero"})
            for (const char* speaker : {"anna", "brian", "ewan", "karl"})
                for (int take = 0; take < 5; ++take)
                    fs::copy(fs::path(WORDS_CORPUS) / recordingName(word, speaker, take), corpus);
        return corpus;
    }

    /// Makes the list of models agree with whatever the files hold now.
    void seal() const {
        const std::string models = (folder / "models").string();
        ModelList::load(models).save(models);
    }

    static std::string recordingName(const std::string& word, const std::string& speaker,
                                     int take) {
        return word + "_" + speaker + "_" + std::to_string(take) + ".flac";
    }

    /// 32-bit floats, which hold what is no number.
    void writeFloats(const std::string& name, const std::vector<float>& samples) const {
        SF_INFO info{};
        info.samplerate = 8000;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* file = sf_open((folder / name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        sf_close(file);
    }

    void writeWav(const std::string& name, int rate, const std::vector<float>& samples,
                  int channels = 1) const {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* file = sf_open((folder / name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        sf_close(file);
    }

    fs::path folder;
};

std::vector<float> tone(double frequency, int rate, double duration, double amplitude = 0.5) {
    std::vector<float> result;
    for (int i = 0; i < static_cast<int>(rate * duration); ++i)
        result.push_back(
            static_cast<float>(amplitude * std::sin(2 * std::numbers::pi * frequency * i / rate)));
    return result;
}

std::vector<float> noise(std::size_t n) {
    std::mt19937 generator(1);
    std::vector<float> result;
    for (std::size_t i = 0; i < n; ++i) // uniform: distributions differ from library to library
        result.push_back(static_cast<float>(static_cast<double>(generator()) / 4294967296.0 - 0.5));
    return result;
}

// / A row of the printed table: right, wrong, per cent, microseconds, times real time, KB, in float
// and then in fixed point.
struct Row {
    std::string title;
    std::vector<double> figures;
};

std::vector<Row> readTable(const std::string& text) {
    std::vector<Row> rows;
    for (const std::string& line : lines(text)) {
        std::istringstream fields(line);
        Row row;
        std::getline(fields, row.title, '|');
        row.title.erase(row.title.find_last_not_of(' ') + 1);
        std::string field;
        while (fields >> field)
            if (field != "|" && field.find_first_not_of("0123456789.") == std::string::npos)
                row.figures.push_back(std::stod(field));
        if (row.figures.size() == 12) rows.push_back(row);
    }
    return rows;
}

const std::vector<std::string> titles{"DTW, all templates", "discrete HMM", "semicontinuous HMM",
                                      "continuous HMM", "multilayer perceptron"};

// ==== compare
// ==============================================================================================

TEST_F(Words, CompareTellsWhatCameOfEachRecogniser) {
    const Told result = run("compare --corpus " + slice().string());
    EXPECT_EQ(result.code, 0) << result.errors;
    EXPECT_EQ(result.errors, ""); // no progress line where the error stream is no terminal
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), titles.size()) << result.out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].title, titles[i]);
        for (const std::size_t flavour : {0u, 6u}) {
            const double* figures = rows[i].figures.data() + flavour;
            EXPECT_EQ(figures[0] + figures[1], 16.0) << titles[i];
            EXPECT_NEAR(figures[2], 100.0 * figures[0] / 16.0, 0.006) << titles[i];
            EXPECT_GE(figures[2], 90.0) << titles[i];
            EXPECT_GT(figures[4], 0.0) << titles[i];
            EXPECT_GT(figures[5], 10.0) << titles[i]; // kilobytes
        }
        EXPECT_LE(std::abs(rows[i].figures[0] - rows[i].figures[6]), 1.0)
            << titles[i] << ", float and fixed";
    }
}

TEST_F(Words, CompareTakesOneRecogniserAndAnotherSplit) {
    const Told result = run("compare --corpus " + slice().string() +
                            " --recogniser mlp --test-takes 3 --report ''");
    EXPECT_EQ(result.code, 0) << result.errors;
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].title, "multilayer perceptron");
    EXPECT_EQ(rows[0].figures[0] + rows[0].figures[1], 48.0);
    EXPECT_FALSE(fs::exists(folder / "report.html"));
}

TEST_F(Words, CompareLeavesOutEachSpeakerInTurn) {
    const Told result = run("compare --corpus " + slice().string() +
                            " --recogniser discrete --leave-out speaker --report ''");
    EXPECT_EQ(result.code, 0) << result.errors;
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 80.0);
    for (const char* speaker : {"anna", "brian", "ewan", "karl"})
        EXPECT_NE(result.out.find(std::string("without ") + speaker), std::string::npos) << speaker;
}

// ==== the page
// =============================================================================================

// / Follows a page's tags; an empty result means that all are closed in the order in which they
// were opened.
std::string unbalanced(const std::string& page) {
    std::vector<std::string> open;
    const std::regex tag("<(/?)([a-zA-Z0-9]+)([^>]*)>");
    for (std::sregex_iterator i(page.begin(), page.end(), tag), end; i != end; ++i) {
        const std::string name = (*i)[2];
        if ((*i)[3].length() > 0 && (*i)[3].str().back() == '/') continue;
        if ((*i)[1].length() == 0)
            open.push_back(name);
        else if (open.empty() || open.back() != name)
            return "</" + name + ">";
        else
            open.pop_back();
    }
    return open.empty() ? "" : "<" + open.back() + ">";
}

int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

TEST_F(Words, ThePageHasTableMatricesAndPictures) {
    const Told result = run("compare --corpus " + slice().string());
    ASSERT_EQ(result.code, 0) << result.errors;
    const std::string page = contents(folder / "report.html");
    EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_EQ(unbalanced(page.substr(page.find("<html"))), "");
    for (const char* outside : {"<script", "<link", "src=", "href=", "url(", "http:", "https:"})
        EXPECT_EQ(count(page, outside), 0) << outside;
    EXPECT_EQ(count(page, "id=\"summary\""), 1);
    for (const std::string& title : titles)
        EXPECT_GE(count(page, title), 2) << title; // in the table and over its matrix
    for (const char* word : {"one", "seven", "three", "zero"})
        EXPECT_EQ(count(page, std::string("id=\"word-") + word + "\""), 1);
    for (const char* picture : {"wave", "mel", "cepstra"})
        EXPECT_EQ(count(page, std::string("<svg class=\"") + picture + "\""), 4) << picture;
    EXPECT_EQ(count(page, "<svg class=\"costs\""), 4 * 5);
    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"}) {
        const std::size_t at = page.find(std::string("id=\"confusion-") + name + "\"");
        ASSERT_NE(at, std::string::npos) << name;
        const std::string matrix = page.substr(at, page.find("</section>", at) - at);
        int sum = 0;
        const std::regex cell("<td[^>]*>([0-9]+)");
        for (std::sregex_iterator i(matrix.begin(), matrix.end(), cell), end; i != end; ++i)
            sum += std::stoi((*i)[1]);
        EXPECT_EQ(sum, 16) << name;
    }
}

TEST_F(Words, ThePageFitsNarrowScreensAndItsPicturesHaveAxes) {
    ASSERT_EQ(
        run("compare --recogniser discrete --leave-out speaker --corpus " + slice().string()).code,
        0);
    const std::string page = contents(folder / "report.html");
    EXPECT_EQ(
        count(page, "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>"),
        1);
    EXPECT_EQ(count(page, "color-scheme: light dark"), 1);
    EXPECT_EQ(count(page, "prefers-color-scheme: dark"), 1);
    EXPECT_EQ(count(page, "<table"), 3); // all, by speakers, what was taken for what
    EXPECT_EQ(count(page, "<div class=\"scroll\" tabindex=\"0\"><table"), count(page, "<table"));
    EXPECT_EQ(count(page, ".scroll { overflow-x: auto; max-width: 100%; }"), 1);
    const int pictures = count(page, "<svg class=");
    EXPECT_EQ(pictures, 4 * 4);
    EXPECT_EQ(count(page, "<path class=\"axis\""), pictures);
    EXPECT_EQ(count(page, ">time, s</text>"), 3 * 4);
    for (const char* axis : {"amplitude", "frequency, Hz", "coefficient", "cost"})
        EXPECT_EQ(count(page, std::string(">") + axis + "</text>"), 4) << axis;
}

TEST_F(Words, ABrowserShowsThePage) {
    std::string browser;
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"})
        if (std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0)
            browser = name;
    if (browser.empty()) GTEST_SKIP() << "no Chromium is installed: the page is not rendered";
    ASSERT_EQ(run("compare --corpus " + slice().string() + " --recogniser mlp").code, 0);
    const std::string picture = (folder / "page.png").string();
    const std::string command =
        browser + " --headless --no-sandbox --disable-gpu --window-size=1200,1600 --screenshot='" +
        picture + "' 'file://" + (folder / "report.html").string() + "' >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    // an empty page of this size takes a quarter of that
    EXPECT_GT(contents(picture).size(), 20000u);
}

// ==== models
// ===============================================================================================

TEST_F(Words, StoredModelsAreTheModels) {
    quietLibrary();
    KTSetHMMMode(KT_HMM_KEEP);
    std::vector<std::string> complaints;
    Progress progress;
    const FeatureExtractor extractor(FrontEnd{});
    const std::vector<Item> items = readItems(
        readCorpus(slice().string(), "", complaints).recordings, extractor, progress, complaints);
    ASSERT_EQ(items.size(), 80u);
    std::vector<const Item*> all;
    for (const Item& item : items)
        all.push_back(&item);
    const TrainingSet training = makeTrainingSet(all);
    ModelList list;
    list.words = training.words;

    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"})
        for (const Flavour flavour : flavours) {
            const auto costs = [&](Recogniser& recogniser, const Item& item) {
                return flavour == Flavour::real ? recogniser.costs(item.features.real)
                                                : recogniser.costs(item.features.fixed);
            };
            std::vector<std::vector<double>> before, after;
            {
                const auto trained = std::move(makeRecognisers(name).front());
                trained->train(training, progress);
                saveModels(*trained, flavour, folder.string());
                for (std::size_t i = 0; i < items.size(); i += 7)
                    before.push_back(costs(*trained, items[i]));
            }
            const auto loaded = std::move(makeRecognisers(name).front());
            loadModels(*loaded, flavour, folder.string(), list);
            for (std::size_t i = 0; i < items.size(); i += 7) {
                after.push_back(costs(*loaded, items[i]));
                const int word = flavour == Flavour::real
                                     ? loaded->recognise(items[i].features.real).word
                                     : loaded->recognise(items[i].features.fixed).word;
                EXPECT_EQ(word, training.utterances[i].word)
                    << name << " " << items[i].recording.path;
            }
            EXPECT_EQ(before, after) << name << " in " << flavourName(flavour);
        }
    releaseLibrary();
}

TEST_F(Words, TrainThenRecognise) {
    const fs::path corpus = slice();
    const Told train = run("train --corpus " + corpus.string() + " --models models");
    EXPECT_EQ(train.code, 0) << train.errors;
    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"})
        for (const char* flavour : {"", " --fixed"}) {
            const Told result = run(std::string("recognise --models models --recogniser ") + name +
                                    flavour + " " + (corpus / "seven_anna_0.flac").string() + " " +
                                    (corpus / "one_ewan_1.flac").string());
            EXPECT_EQ(result.code, 0) << result.errors;
            const std::vector<std::string> answers = lines(result.out);
            ASSERT_EQ(answers.size(), 2u) << name;
            EXPECT_TRUE(std::regex_search(answers[0],
                                          std::regex("seven_anna_0.flac: seven, cost [0-9]+; next "
                                                     "(one|three|zero), cost [0-9]+; [0-9.]+ ms$")))
                << answers[0];
            EXPECT_NE(answers[1].find(": one, cost"), std::string::npos) << answers[1];
        }
}

TEST_F(Words, OneRecogniserCanBeTrainedAlone) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models --recogniser mlp").code,
              0);
    EXPECT_EQ(run("recognise --models models " + (corpus / "one_ewan_1.flac").string()).code, 0);
    const Told other =
        run("recognise --models models --recogniser dtw " + (corpus / "one_ewan_1.flac").string());
    EXPECT_EQ(other.code, 2);
    EXPECT_EQ(other.errors, "words: models: no models for dtw\n");
}

// ==== what is wrong with files
// =============================================================================

TEST_F(Words, ABadRecordingIsNamedAndTheBatchGoesOn) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models --recogniser mlp").code,
              0);
    std::ofstream(folder / "text.wav") << "not a recording";
    writeWav("empty.wav", 8000, {});
    writeWav("slow.wav", 4000, tone(300, 4000, 0.5));
    writeWav("short.wav", 8000, tone(300, 8000, 0.01));
    const Told result =
        run("recognise --models models missing.wav text.wav empty.wav slow.wav short.wav " +
            (corpus / "zero_anna_0.flac").string());
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.out.find(": zero, cost"), std::string::npos);
    EXPECT_EQ(lines(result.out).size(), 1u);
    const std::vector<std::string> errors = lines(result.errors);
    ASSERT_EQ(errors.size(), 5u) << result.errors;
    EXPECT_TRUE(std::regex_search(errors[0], std::regex("^words: missing.wav: .*No such file")));
    EXPECT_TRUE(std::regex_search(errors[1], std::regex("^words: text.wav: .*[Ff]ormat")));
    EXPECT_EQ(errors[2], "words: empty.wav: no samples");
    EXPECT_EQ(errors[3], "words: slow.wav: 4000 samples a second, wanted 8000 to 48000");
    EXPECT_EQ(errors[4], "words: short.wav: shorter than one frame of 25 ms");
}

TEST_F(Words, BadLabelsAreNamedAndTheRestIsCompared) {
    const fs::path corpus = slice();
    fs::copy(corpus / "one_anna_0.flac",
             corpus / "eleven_anna_0.flac"); // a take of the test set, and no other
    fs::copy(corpus / "one_anna_0.flac", corpus / "unlabelled.flac");
    fs::copy(corpus / "one_anna_0.flac", corpus / "one_anna_x.flac");
    const Told result = run("compare --recogniser mlp --report '' --corpus " + corpus.string());
    EXPECT_EQ(result.code, 2);
    const std::vector<std::string> errors = lines(result.errors);
    ASSERT_EQ(errors.size(), 3u) << result.errors;
    EXPECT_EQ(count(result.errors, "/unlabelled.flac: the name is not WORD_SPEAKER_TAKE\n"), 1);
    EXPECT_EQ(count(result.errors, "/one_anna_x.flac: the name is not WORD_SPEAKER_TAKE\n"), 1);
    EXPECT_EQ(count(result.errors,
                    "/eleven_anna_0.flac: unknown label 'eleven', no training recording has it\n"),
              1);
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 16.0);
}

TEST_F(Words, WordsShorterThanTheirModelsAreLearnt) {
    const fs::path corpus = folder / "short";
    fs::create_directory(corpus);
    for (int take = 0; take < 6; ++take) { // three frames each
        writeWav("short/low_a_" + std::to_string(take) + ".wav", 8000,
                 tone(300 + 5 * take, 8000, 0.045));
        writeWav("short/high_a_" + std::to_string(take) + ".wav", 8000,
                 tone(2000 + 20 * take, 8000, 0.045));
    }
    const Told result =
        run("compare --no-mean --no-variance --recogniser continuous --report '' --corpus short");
    EXPECT_EQ(result.code, 0) << result.errors;
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0], 4.0);
    EXPECT_EQ(readTable(result.out)[0].figures[6], 4.0);

    const Told codebook = run("compare --recogniser discrete --report '' --corpus short");
    EXPECT_EQ(codebook.code, 2);
    EXPECT_EQ(codebook.errors,
              "words: short: too little to train from: 256 frames are wanted at least\n");
}

TEST_F(Words, WhatIsNoSpeechIsNoWord) {
    ASSERT_EQ(run("train --models models --corpus " + slice().string()).code, 0);
    writeWav("silence.wav", 8000, std::vector<float>(4000));
    writeWav("constant.wav", 8000, std::vector<float>(4000, 0.4f));
    writeWav("tone.wav", 8000, tone(440, 8000, 0.5));
    writeWav("noise.wav", 8000, noise(4000));
    std::vector<float> click(4000);
    click[2000] = 0.9f;
    writeWav("click.wav", 8000, click);
    writeFloats("nan.wav", std::vector<float>(4000, std::numeric_limits<float>::quiet_NaN()));
    writeFloats("infinite.wav", std::vector<float>(4000, std::numeric_limits<float>::infinity()));
    const std::vector<std::string> names{"silence", "constant", "tone",    "noise",
                                         "click",   "nan",      "infinite"};
    std::string files;
    for (const std::string& name : names)
        files += " " + name + ".wav";
    for (const char* recogniser : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"})
        for (const char* flavour : {"", " --fixed"}) {
            const Told result = run(std::string("recognise --models models --recogniser ") +
                                    recogniser + flavour + files);
            EXPECT_EQ(result.code, 0) << result.errors;
            const std::vector<std::string> answers = lines(result.out);
            ASSERT_EQ(answers.size(), names.size()) << result.errors;
            for (std::size_t i = 0; i < names.size(); ++i)
                EXPECT_EQ(answers[i].rfind(names[i] + ".wav: none, no speech in it; ", 0), 0u)
                    << recogniser << flavour << ": " << answers[i];
        }
}

TEST_F(Words, WhatNoWordFitsIsNoWord) {
    ASSERT_EQ(run("train --recogniser dtw --models models --corpus " + slice().string()).code, 0);
    std::vector<float> beeps = tone(440, 8000, 20.0); // no template is half as long
    for (std::size_t i = 0; i < beeps.size(); ++i)
        beeps[i] *= i / 2000 % 2 == 0 ? 1.0f : 0.05f;
    writeWav("beeps.wav", 8000, beeps);
    const Told result = run("recognise --models models beeps.wav");
    EXPECT_EQ(result.code, 0) << result.errors;
    EXPECT_TRUE(
        std::regex_search(result.out, std::regex("^beeps.wav: none, no word fits; nearest "
                                                 "(one|seven|three|zero), cost 999 of [0-9]+; ")))
        << result.out;
}

/// Costs as the tests want them: by the first of the features.
class Costly : public Recogniser {
public:
    std::string name() const override { return "costly"; }
    std::string title() const override { return "costly"; }
    void train(const TrainingSet&, Progress&) override {}
    words::Answer recognise(const Matrix<float>&) override { return {}; }
    words::Answer recognise(const Matrix<short>&) override { return {}; }
    std::vector<double> costs(const Matrix<float>& features) override {
        return {features.row(0)[0], features.row(0)[1]};
    }
    std::vector<double> costs(const Matrix<short>&) override { return {}; }
    void save(Flavour, const std::string&) const override {}
    void load(Flavour, const std::string&, const std::vector<std::string>&, int) override {}
};

TEST(CostScales, TheTrainingTellsWhatIsUsualAndWhatIsTooMuch) {
    TrainingSet training;
    training.words = {"no", "yes"};
    const double none = std::numeric_limits<double>::infinity();
    const double table[][2] = {{1, 5}, {2, 6}, {3, 7},
                               {4, 7}, {9, 3}, {none, none}}; // the fifth is mislabelled
    for (const auto& costs : table) {
        Utterance utterance;
        utterance.real = Matrix<float>(1, 2);
        utterance.real.row(0)[0] = static_cast<float>(costs[0]);
        utterance.real.row(0)[1] = static_cast<float>(costs[1]);
        training.utterances.push_back(std::move(utterance));
    }
    Costly recogniser;
    const CostScale scale = findScale(recogniser, Flavour::real, training);
    EXPECT_EQ(scale.right, 2.0);  // of 1 2 3 4
    EXPECT_EQ(scale.wrong, 6.0);  // of 3 5 6 7 7
    EXPECT_EQ(scale.limit, 17.0); // three times as far above 2 as 7 is, the worst of all
    EXPECT_TRUE(scale.admits(17.0));
    for (const double cost : {17.001, 3e38, none, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_FALSE(scale.admits(cost)) << cost;
    EXPECT_EQ(scale.forPeople(2.0), 100.0);
    EXPECT_EQ(scale.forPeople(6.0), 200.0);
    EXPECT_EQ(scale.forPeople(-90.0), 0.0);
    for (const double cost : {1e9, none, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(scale.forPeople(cost), 999.0) << cost;
}

TEST(CostScales, LevelsOfSpeechAreSpread) {
    const auto spread = [](const std::vector<float>& signal) {
        Samples samples;
        for (const float value : signal)
            samples.push_back(static_cast<short>(std::lround(value * 32767.0f)));
        return levelSpread(samples);
    };
    EXPECT_EQ(spread(std::vector<float>(8000, 0.0f)), 0.0);
    EXPECT_LT(spread(std::vector<float>(8000, 0.5f)), 1e-6);
    EXPECT_LT(spread(tone(440, 8000, 1.0)), 0.5);
    EXPECT_LT(spread(noise(8000)), 0.8);
    std::vector<float> syllables = tone(440, 8000, 1.0);
    for (std::size_t i = 0; i < syllables.size(); ++i) // halves with 20 dB between them
        syllables[i] *= i / 2000 % 2 == 0 ? 1.0f : 0.1f;
    EXPECT_NEAR(spread(syllables), 20.0 * 4 / 9, 0.5); // four tenths of nine are 20 dB off
    EXPECT_EQ(findLeastSpread({8.0, 1.0, 9.0}), 0.5);
    EXPECT_EQ(findLeastSpread({8.0, 7.0, 9.0}), 1.0);
}

/// "cost 97; next one, cost 188" as numbers.
std::vector<double> shownCosts(const std::string& answer) {
    std::vector<double> result;
    const std::regex cost("cost ([0-9]+)");
    for (std::sregex_iterator i(answer.begin(), answer.end(), cost), end; i != end; ++i)
        result.push_back(std::stod((*i)[1]));
    return result;
}

TEST_F(Words, CostsOfAllKindsHaveOneScale) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --models models --corpus " + corpus.string()).code, 0);
    std::string files;
    for (const char* word : {"one", "seven", "three", "zero"})
        files += " " + (corpus / recordingName(word, "brian", 1)).string();
    for (const char* recogniser : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"}) {
        const std::string command =
            std::string("recognise --models models --recogniser ") + recogniser;
        const std::vector<std::string> real = lines(run(command + files).out);
        const std::vector<std::string> fixed = lines(run(command + " --fixed" + files).out);
        ASSERT_EQ(real.size(), 4u);
        ASSERT_EQ(fixed.size(), 4u);
        for (std::size_t i = 0; i < 4; ++i) {
            const std::vector<double> a = shownCosts(real[i]), b = shownCosts(fixed[i]);
            ASSERT_EQ(a.size(), 2u) << real[i];
            ASSERT_EQ(b.size(), 2u) << fixed[i];
            EXPECT_LE(a[0], 150.0) << real[i];
            EXPECT_GE(a[1], 120.0) << real[i];
            EXPECT_NEAR(a[0], b[0], 15.0) << recogniser << "\n" << real[i] << "\n" << fixed[i];
        }
    }
}

TEST_F(Words, LabelsMayComeFromAFile) {
    const fs::path corpus = slice();
    std::ofstream labels(folder / "labels.txt");
    int number = 0;
    for (const char* word : {"one", "zero"})
        for (int take = 0; take < 5; ++take) {
            const std::string name = std::to_string(++number) + ".flac";
            fs::rename(corpus / recordingName(word, "anna", take), corpus / name);
            labels << name << " " << word << " anna " << take << " # a comment\n";
        }
    labels << "11.flac\n\n12.flac one anna first\nmissing.flac one anna 4\n";
    labels.close();
    const Told result =
        run("compare --recogniser dtw --report '' --labels labels.txt --corpus " + corpus.string());
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(count(result.errors, "words: labels.txt:11: wanted FILE WORD [SPEAKER [TAKE]]\n"), 1)
        << result.errors;
    EXPECT_EQ(count(result.errors, "words: labels.txt:13: wanted FILE WORD [SPEAKER [TAKE]]\n"), 1)
        << result.errors;
    EXPECT_EQ(count(result.errors, "/missing.flac: "), 1);
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 2.0);
}

TEST_F(Words, ADamagedModelFileIsNamed) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models").code, 0);
    const std::string recording = (corpus / "one_ewan_1.flac").string();
    int nFiles = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder / "models")) {
        const std::string name = entry.path().filename().string();
        const std::string whole = contents(entry.path());
        const std::string recogniser = name == "words.txt" ? "mlp" : name.substr(0, name.find('.'));
        const std::string command = "recognise --models models --recogniser " + recogniser +
                                    (name.find(".fixed") != std::string::npos ? " --fixed " : " ") +
                                    recording;
        for (const std::string& damaged : {std::string(), whole.substr(0, whole.size() / 2),
                                           std::string(200, 'x'), whole + "x"}) {
            std::ofstream(entry.path(), std::ios::binary) << damaged;
            // the readers have to see it, without the help of the list
            if (name != "words.txt") seal();
            const Told result = run(command);
            EXPECT_EQ(result.code, 2)
                << name << ", " << damaged.size() << " of " << whole.size() << " bytes";
            EXPECT_EQ(lines(result.errors).size(), 1u) << result.errors;
            EXPECT_EQ(result.errors.rfind("words: models/" + name + ": ", 0), 0u) << result.errors;
        }
        std::ofstream(entry.path(), std::ios::binary) << whole;
        seal();
        EXPECT_EQ(run(command).code, 0) << name;
        ++nFiles;
    }
    EXPECT_EQ(nFiles, 1 + 2 * (4 + 2 + 2 + 1 + 1));
}

TEST_F(Words, ModelsOfAnotherKindAreRefused) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models").code, 0);
    const std::vector<std::pair<std::string, std::string>> exchanges{
        {"continuous.fixed.hmm", "continuous.float.hmm"},
        {"discrete.float.hmm", "continuous.float.hmm"},
        {"continuous.float.hmm", "semicontinuous.float.hmm"},
        {"mlp.fixed.mlp", "mlp.float.mlp"},
        {"semicontinuous.fixed.codebook.gaus", "semicontinuous.float.codebook.gaus"},
        {"discrete.float.hmm", "discrete.fixed.hmm"}};
    for (const auto& [from, to] : exchanges) {
        const std::string whole = contents(folder / "models" / to);
        fs::copy_file(folder / "models" / from, folder / "models" / to,
                      fs::copy_options::overwrite_existing);
        seal();
        const Told result =
            run("recognise --models models --recogniser " + to.substr(0, to.find('.')) +
                (to.find("fixed") != std::string::npos ? " --fixed " : " ") +
                (corpus / "one_ewan_1.flac").string());
        EXPECT_EQ(result.code, 2) << from << " as " << to;
        EXPECT_EQ(result.errors.rfind("words: models/" + to + ": damaged, ", 0), 0u)
            << result.errors;
        std::ofstream(folder / "models" / to, std::ios::binary) << whole;
    }
}

// ==== model folders
// ========================================================================================

std::string trainCommand(const fs::path& corpus) {
    return "train --recogniser mlp --models models --corpus " + corpus.string();
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(Words, InterruptedTrainingLeavesTheOldModels) {
    const fs::path corpus = slice();
    ASSERT_EQ(run(trainCommand(corpus)).code, 0);
    const std::string list = contents(folder / "models/words.txt");
    for (const fs::directory_entry& entry : fs::directory_iterator(corpus)) { // another vocabulary
        const std::string name = entry.path().filename().string();
        if (name.starts_with("one_")) fs::rename(entry.path(), corpus / ("alpha" + name.substr(3)));
    }
    // Files end at 20 blocks: the disk is full, as far as the program can tell.
    const fs::path errors = folder / "errors";
    const std::string command = "cd '" + folder.string() + "' && trap '' XFSZ && ulimit -f 20 && " +
                                WORDS_PROGRAM + " " + trainCommand(corpus) + " 2>'" +
                                errors.string() + "'";
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 2);
    EXPECT_TRUE(std::regex_search(contents(errors),
                                  std::regex("^words: .*/mlp.float.mlp: could not be written: "
                                             "File too large\n$")))
        << contents(errors);
    EXPECT_EQ(contents(folder / "models/words.txt"), list);
    EXPECT_EQ(count(contents(errors), "\n"), 1);
    for (const std::string& name : namesIn(folder))
        EXPECT_EQ(name.find("models."), std::string::npos) << name; // nothing is left beside it
    const Told old = run("recognise --models models " + (corpus / "alpha_anna_1.flac").string());
    EXPECT_NE(old.out.find(": one, cost"), std::string::npos) << old.out << old.errors;

    ASSERT_EQ(run(trainCommand(corpus)).code, 0);
    const Told now = run("recognise --models models " + (corpus / "alpha_anna_1.flac").string());
    EXPECT_NE(now.out.find(": alpha, cost"), std::string::npos) << now.out << now.errors;
}

TEST_F(Words, AFolderTakesItsPlaceInOneStep) {
    const std::string place = (folder / "place/").string();
    for (const bool atOnce : {true, false})
        for (const char* text : {"first", "second"}) {
            NewFolder made(place);
            writeFile(made.path() + "/file", text);
            writeFile(made.path() + "/" + text, "");
            if (std::strcmp(text, "second") == 0) {
                EXPECT_EQ(contents(folder / "place/file"), "first");
            }
            made.putInPlace(atOnce);
            EXPECT_EQ(namesIn(folder), std::vector<std::string>{"place"});
            EXPECT_EQ(namesIn(folder / "place"), (std::vector<std::string>{"file", text}));
            EXPECT_EQ(contents(folder / "place/file"), text);
        }
    { const NewFolder forgotten(place); }
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"place"});
    fs::rename(folder / "place", folder / "place.old"); // stopped between two steps
    EXPECT_EQ(existingFolder(place), (fs::canonical(folder) / "place.old").string());
    NewFolder made(place);
    made.putInPlace(false);
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"place"});
    EXPECT_EQ(existingFolder(place), place);
}

TEST_F(Words, OnlyModelsAreReplaced) {
    const fs::path corpus = slice();
    fs::create_directory(folder / "models");
    EXPECT_EQ(run(trainCommand(corpus)).code, 0); // an empty folder
    std::ofstream(folder / "models/letter.txt") << "dear";
    const Told result = run(trainCommand(corpus));
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.errors, "words: models: holds 'letter.txt', which is no model: please name a "
                             "folder for models alone\n");
    EXPECT_EQ(contents(folder / "models/letter.txt"), "dear");
}

TEST_F(Words, AFlippedByteIsTold) {
    const fs::path corpus = slice();
    ASSERT_EQ(run(trainCommand(corpus)).code, 0);
    const std::string command =
        "recognise --models models " + (corpus / "one_ewan_1.flac").string();
    for (const char* name : {"mlp.float.mlp", "words.txt"}) {
        const fs::path path = folder / "models" / name;
        const std::string whole = contents(path);
        for (const std::size_t place :
             {std::size_t{0}, whole.size() / 3, whole.size() / 2, whole.size() - 2}) {
            std::string damaged = whole;
            damaged[place] = static_cast<char>(damaged[place] ^ 1);
            std::ofstream(path, std::ios::binary) << damaged;
            const Told result = run(command);
            EXPECT_EQ(result.code, 2) << name << ", byte " << place;
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.errors.rfind(std::string("words: models/") + name + ": ", 0), 0u)
                << result.errors;
            if (place > 20) {
                EXPECT_NE(result.errors.find(": damaged, its checksum "), std::string::npos);
            }
        }
        std::ofstream(path, std::ios::binary) << whole;
        fs::rename(path, folder / "away");
        const Told missing = run(command);
        EXPECT_EQ(missing.code, 2);
        EXPECT_EQ(missing.errors.find("damaged"), std::string::npos) << missing.errors;
        EXPECT_TRUE(std::regex_search(missing.errors, std::regex("missing|No such file")))
            << missing.errors;
        fs::rename(folder / "away", path);
    }
    EXPECT_EQ(run(command).code, 0);
}

TEST(Checksums, EveryByteCounts) {
    std::string text = "words models";
    const std::uint64_t sum = checksum(text);
    EXPECT_EQ(checksum(""), 0xcbf29ce484222325u); // the algorithm's published values
    EXPECT_EQ(checksum("a"), 0xaf63dc4c8601ec8cu);
    EXPECT_EQ(checksum("foobar"), 0x85944171f73967e8u);
    for (char& c : text)
        for (int bit = 0; bit < 8; ++bit) {
            c = static_cast<char>(c ^ (1 << bit));
            EXPECT_NE(checksum(text), sum);
            c = static_cast<char>(c ^ (1 << bit));
        }
}

TEST_F(Words, AModelOfAnotherWordIsRefused) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --models models --corpus " + corpus.string()).code, 0);
    ModelList list = ModelList::load((folder / "models").string());
    ASSERT_EQ(list.words.front(), "one");
    list.words.front() = "alpha"; // a list of other words, sealed as if it had been written so
    list.save((folder / "models").string());
    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"})
        for (const char* flavour : {"", " --fixed"}) {
            const Told result = run(std::string("recognise --models models --recogniser ") + name +
                                    flavour + " " + (corpus / "one_ewan_1.flac").string());
            EXPECT_EQ(result.code, 2) << name;
            EXPECT_EQ(
                count(result.errors, "damaged, no model of the word 'alpha' where one should be"),
                1)
                << result.errors;
        }
}

TEST_F(Words, WordsMayHoldSpaces) {
    const fs::path corpus = slice();
    for (int take = 0; take < 5; ++take)
        for (const char* speaker : {"anna", "brian", "ewan", "karl"})
            fs::rename(corpus / recordingName("one", speaker, take),
                       corpus / recordingName("number one", speaker, take));
    ASSERT_EQ(run(trainCommand(corpus)).code, 0);
    const Told result =
        run("recognise --models models '" + (corpus / "number one_anna_1.flac").string() + "'");
    EXPECT_NE(result.out.find(": number one, cost"), std::string::npos)
        << result.out << result.errors;
}

// ==== what users are told
// ==================================================================================

TEST_F(Words, ComplaintsOutliveAFailure) {
    fs::create_directory(folder / "short");
    for (int take = 0; take < 6; ++take)
        writeWav("short/low_a_" + std::to_string(take) + ".wav", 8000, tone(300, 8000, 0.045));
    std::ofstream(folder / "short/low_a_7.wav") << "not a recording";
    std::ofstream(folder / "short/unlabelled.wav") << "";
    for (const char* command : {"train --models models", "compare --report ''"}) {
        const Told result = run(std::string(command) + " --recogniser discrete --corpus short");
        EXPECT_EQ(result.code, 2);
        const std::vector<std::string> errors = lines(result.errors);
        ASSERT_EQ(errors.size(), 3u) << result.errors;
        EXPECT_EQ(errors[0], "words: short/unlabelled.wav: the name is not WORD_SPEAKER_TAKE");
        EXPECT_EQ(errors[1].rfind("words: short/low_a_7.wav: ", 0), 0u);
        EXPECT_EQ(errors[2],
                  "words: short: too little to train from: 256 frames are wanted at least");
    }
    EXPECT_FALSE(fs::exists(folder / "models"));
}

TEST_F(Words, AFullDeviceIsAFailure) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "there is no /dev/full";
    const fs::path corpus = slice();
    ASSERT_EQ(run(trainCommand(corpus)).code, 0);
    const std::string recording = (corpus / "one_ewan_1.flac").string();
    const fs::path errors = folder / "errors";
    for (const std::string& arguments :
         {"recognise --models models " + recording, "features " + recording,
          "compare --report '' --recogniser mlp --corpus " + corpus.string(), trainCommand(corpus),
          std::string("--help"), std::string("--version")}) {
        const std::string command = "cd '" + folder.string() + "' && " + WORDS_PROGRAM + " " +
                                    arguments + " >/dev/full 2>'" + errors.string() + "'";
        EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 2) << arguments;
        EXPECT_EQ(contents(errors),
                  "words: standard output: could not be written: No space left on device\n")
            << arguments;
    }
    // Where nobody can be told, the exit code does.
    const int status = std::system(
        (std::string(WORDS_PROGRAM) + " recognise --models nowhere x.wav 2>/dev/full").c_str());
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
}

TEST_F(Words, FailuresHaveTheirCauses) {
    const fs::path corpus = slice();
    const std::string recording = (corpus / "one_ewan_1.flac").string();
    const std::vector<std::pair<std::string, std::string>> commands{
        {"features " + recording + " --output nowhere/x.csv",
         "nowhere/x.csv: could not be written: No such file or directory"},
        {"compare --recogniser mlp --report nowhere/x.html --corpus " + corpus.string(),
         "nowhere/x.html: could not be written: No such file or directory"},
        {"compare --labels nowhere.txt --corpus " + corpus.string(),
         "nowhere.txt: cannot be read: No such file or directory"},
        {"recognise --models nowhere " + recording,
         "nowhere/words.txt: cannot be read: No such file or directory"},
        {"train --recogniser mlp --models " + recording + "/models --corpus " + corpus.string(),
         recording + "/models: could not be made: Not a directory"}};
    for (const auto& [command, cause] : commands) {
        const Told result = run(command);
        EXPECT_EQ(result.code, 2) << command;
        EXPECT_EQ(result.errors, "words: " + cause + "\n");
    }
}

TEST_F(Words, HelpTellsDefaultsAndBounds) {
    EXPECT_TRUE(std::regex_match(run("--version").out,
                                 std::regex("words of ktlP6 [0-9]+[.][0-9]+[.][0-9]+\n")));
    const std::string help = run("compare --help").out;
    for (const char* value : {"=report.html", "=all", "=5, or a third of fewer than 15"})
        EXPECT_NE(help.find(value), std::string::npos) << value << "\n" << help;
    EXPECT_NE(run("recognise --help").out.find("=continuous, or the first"), std::string::npos);
    const Told bound = run("compare --corpus . --test-takes 0");
    EXPECT_EQ(bound.code, 2);
    EXPECT_FALSE(std::regex_search(bound.errors, std::regex("[0-9]{8}"))) << bound.errors;
}

TEST_F(Words, WrongArgumentsAreRefused) {
    for (const char* arguments :
         {"", "listen", "compare", "compare --corpus nowhere", "compare --corpus . ",
          "recognise --models nowhere x.wav", "compare --corpus . --recogniser best", "features",
          "features nothing.wav"}) {
        const Told result = run(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_NE(result.errors, "") << arguments;
    }
    EXPECT_EQ(run("--help").code, 0);
}

// ==== features and audio
// ===================================================================================

TEST_F(Words, FeaturesAsTextAndAsFiles) {
    writeWav("tone.wav", 8000, tone(700, 8000, 0.5));
    const Told printed = run("features tone.wav");
    ASSERT_EQ(printed.code, 0) << printed.errors;
    EXPECT_EQ(lines(printed.out).size(), 48u); // 1 + (4000 - 200) / 80
    for (const std::string& line : lines(printed.out))
        EXPECT_EQ(count(line, ","), 38);
    EXPECT_EQ(count(lines(run("features --no-deltas tone.wav").out)[0], ","), 12);

    ASSERT_EQ(run("features tone.wav --output tone.csv").code, 0);
    EXPECT_EQ(contents(folder / "tone.csv"), printed.out);

    ASSERT_EQ(run("features tone.wav --output tone.npy").code, 0);
    const std::string npy = contents(folder / "tone.npy");
    ASSERT_EQ(npy.size(), 128 + 48 * 39 * sizeof(float));
    EXPECT_EQ(npy.substr(0, 10), std::string("\x93NUMPY\x01\x00\x76\x00", 10));
    EXPECT_EQ(
        npy.substr(10, 60).rfind("{'descr': '<f4', 'fortran_order': False, 'shape': (48, 39), ", 0),
        0u);
    EXPECT_EQ(npy[127], '\n');
    std::istringstream text(printed.out);
    for (std::size_t i = 0; i < 48 * 39; ++i) {
        float stored = 0.0f, shown = 0.0f;
        char comma = ' ';
        std::memcpy(&stored, npy.data() + 128 + i * sizeof(float), sizeof(float));
        text >> shown;
        if (i % 39 != 38) text >> comma;
        ASSERT_EQ(stored, shown) << i; // the shortest text that gives the same float
    }
    EXPECT_EQ(run("features tone.wav --output tone.txt").code, 2);
}

TEST_F(Words, FixedFeaturesAreTheFloatOnesIn16Bits) {
    const FeatureExtractor extractor(FrontEnd{});
    const Samples samples = readRecording((fs::path(WORDS_CORPUS) / "five_carol_0.flac").string());
    const Matrix<float> real = extractor.real(samples);
    const Matrix<short> fixed = extractor.fixed(samples);
    ASSERT_EQ(real.rows(), fixed.rows());
    double squares = 0.0;
    for (int t = 0; t < real.rows(); ++t)
        for (int i = 0; i < real.columns(); ++i)
            squares += std::pow(real.row(t)[i] - fixed.row(t)[i] * KTPower2(featureScale), 2);
    // A deviation of 1 stands at 1; cepstra have units of 2^-10 and second differences a deviation
    // of about 0.03 of them.
    EXPECT_LT(std::sqrt(squares / (real.rows() * real.columns())), 0.06);
}

TEST_F(Words, NormalisedFeaturesHaveMeanZeroAndDeviationOne) {
    const Samples samples = readRecording((fs::path(WORDS_CORPUS) / "two_david_3.flac").string());
    const Matrix<float> features = FeatureExtractor(FrontEnd{}).real(samples);
    for (int i = 0; i < features.columns(); ++i) {
        double sum = 0.0, squares = 0.0;
        for (int t = 0; t < features.rows(); ++t) {
            sum += features.row(t)[i];
            squares += features.row(t)[i] * features.row(t)[i];
        }
        EXPECT_NEAR(sum / features.rows(), 0.0, 0.02) << i; // single values end at six deviations
        EXPECT_NEAR(squares / features.rows(), 1.0, 0.1) << i;
    }
}

TEST_F(Words, RecordingsOfOtherRatesComeTo8kHz) {
    for (const int rate : {8000, 11025, 16000, 22050, 44100, 48000}) {
        writeWav("rate.wav", rate, tone(1000, rate, 0.5));
        const Samples samples = readRecording((folder / "rate.wav").string());
        ASSERT_NEAR(static_cast<double>(samples.size()), 4000.0, 1.0) << rate;
        double largest = 0.0;
        for (std::size_t i = 200; i < 3800;
             ++i) // away from the ends, where the interpolation has no neighbours
            largest = std::max(
                largest, std::abs(samples[i] / 32768.0 -
                                  0.5 * std::sin(std::numbers::pi / 4 * static_cast<double>(i))));
        EXPECT_LT(largest, rate == 8000 ? 1e-4 : 0.005) << rate;
    }
}

TEST_F(Words, WhatIsAbove4kHzDoesNotFoldBack) {
    writeWav("high.wav", 48000, tone(7000, 48000, 0.5));
    const Samples samples = readRecording((folder / "high.wav").string());
    for (std::size_t i = 200; i < 3800; ++i)
        ASSERT_LT(std::abs(samples[i]), 33) << i; // 54 dB below the tone
}

TEST_F(Words, AMinuteOf48kHzIsSoonAt8kHz) {
    writeWav("minute.wav", 48000, tone(1000, 48000, 60.0));
    const std::clock_t start = std::clock();
    EXPECT_EQ(readRecording((folder / "minute.wav").string()).size(), 480000u);
    // a tenth of that as a rule
    EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, 1.0);
}

TEST_F(Words, ChannelsAreMixed) {
    std::vector<float> both;
    for (const float value : tone(500, 8000, 0.2)) {
        both.push_back(value);
        both.push_back(0.0f);
    }
    writeWav("stereo.wav", 8000, both, 2);
    const Samples samples = readRecording((folder / "stereo.wav").string());
    ASSERT_EQ(samples.size(), 1600u);
    EXPECT_NEAR(*std::max_element(samples.begin(), samples.end()), 8192, 2);
}

TEST_F(Words, SilenceAtBothEndsIsCutOff) {
    Samples samples(8000, 3);
    for (std::size_t i = 2400; i < 5600; ++i)
        samples[i] = static_cast<short>(i % 2 == 0 ? 9000 : -9000);
    const Samples rest = trimmed(samples);
    ASSERT_EQ(rest.size(), 3200u);
    EXPECT_EQ(rest.front(), 9000);
    EXPECT_EQ(trimmed(Samples(800, 0)).size(), 800u);
}

// ==== real speech
// ==========================================================================================

class RealSpeech : public Words {
protected:
    void SetUp() override {
        Words::SetUp();
        if (!fs::is_directory(WORDS_REAL_CORPUS))
            GTEST_SKIP() << "no recordings in " << WORDS_REAL_CORPUS
                         << " (CMake's KTLP6_SPEECH): nothing is tested on them";
    }
};

TEST_F(RealSpeech, EveryRecogniserReachesItsAccuracy) {
    const Told result = run(std::string("compare --test-takes 5 --corpus ") + WORDS_REAL_CORPUS);
    ASSERT_EQ(result.code, 0) << result.errors;
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), 5u);
    const double wanted[] = {97.0, 94.0, 96.0, 98.0, 96.0};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].figures[0] + rows[i].figures[1], 200.0);
        EXPECT_GE(rows[i].figures[2], wanted[i]) << rows[i].title;
        EXPECT_LE(std::abs(rows[i].figures[8] - rows[i].figures[2]), 0.5)
            << rows[i].title << ", fixed and float";
    }
}

TEST_F(RealSpeech, ContinuousModelsUnderstandSpeakersThatTheyNeverHeard) {
    const Told result = run(
        std::string("compare --recogniser continuous --leave-out speaker --report '' --corpus ") +
        WORDS_REAL_CORPUS);
    ASSERT_EQ(result.code, 0) << result.errors;
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_GE(rows[0].figures[2], 80.0);
}

} // namespace
