// The word recogniser from outside, as its users see it, and its parts where the outside does not tell enough.
#include "compare.h"
#include "frontend.h"
#include "models.h"
#include "table.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <sys/wait.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using namespace words;

struct Answer {
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

    Answer run(const std::string& arguments) const {
        const fs::path out = folder / "out", errors = folder / "errors";
        const std::string command = "cd '" + folder.string() + "' && " + WORDS_PROGRAM + " " + arguments +
                                    " >'" + out.string() + "' 2>'" + errors.string() + "'";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(out), contents(errors)};
    }

    /// Four words of three speakers of the shipped corpus: 72 recordings, of which takes 0 and 1, 24, are the test set.
    fs::path slice() const {
        const fs::path corpus = folder / "slice";
        fs::create_directory(corpus);
        for (const char* word : {"one", "seven", "three", "zero"})
            for (const char* speaker : {"anna", "brian", "ewan"})
                for (int take = 0; take < 6; ++take)
                    fs::copy(fs::path(WORDS_CORPUS) / recordingName(word, speaker, take), corpus);
        return corpus;
    }

    static std::string recordingName(const std::string& word, const std::string& speaker, int take) {
        return word + "_" + speaker + "_" + std::to_string(take) + ".flac";
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

/// A row of the printed table: right, wrong, per cent, microseconds, times real time, KB, in float and then in fixed point.
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

// ==== compare ==============================================================================================

TEST_F(Words, CompareTellsWhatCameOfEachRecogniser) {
    const Answer result = run("compare --corpus " + slice().string());
    EXPECT_EQ(result.code, 0) << result.errors;
    EXPECT_EQ(result.errors, ""); // no progress line where the error stream is no terminal
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), titles.size()) << result.out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].title, titles[i]);
        for (const std::size_t flavour : {0u, 6u}) {
            const double* figures = rows[i].figures.data() + flavour;
            EXPECT_EQ(figures[0] + figures[1], 24.0) << titles[i];
            EXPECT_NEAR(figures[2], 100.0 * figures[0] / 24.0, 0.006) << titles[i];
            EXPECT_GE(figures[2], 90.0) << titles[i];
            EXPECT_GT(figures[4], 0.0) << titles[i];
            EXPECT_GT(figures[5], 10.0) << titles[i]; // kilobytes
        }
        EXPECT_LE(std::abs(rows[i].figures[0] - rows[i].figures[6]), 1.0) << titles[i] << ", float and fixed";
    }
}

TEST_F(Words, CompareTakesOneRecogniserAndAnotherSplit) {
    const Answer result =
        run("compare --corpus " + slice().string() + " --recogniser mlp --test-takes 3 --report ''");
    EXPECT_EQ(result.code, 0) << result.errors;
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].title, "multilayer perceptron");
    EXPECT_EQ(rows[0].figures[0] + rows[0].figures[1], 36.0);
    EXPECT_FALSE(fs::exists(folder / "report.html"));
}

TEST_F(Words, CompareLeavesOutEachSpeakerInTurn) {
    const Answer result = run("compare --corpus " + slice().string() +
                              " --recogniser discrete --leave-out speaker --report ''");
    EXPECT_EQ(result.code, 0) << result.errors;
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 72.0);
    for (const char* speaker : {"anna", "brian", "ewan"})
        EXPECT_NE(result.out.find(std::string("without ") + speaker), std::string::npos) << speaker;
}

// ==== the page =============================================================================================

/// Follows a page's tags; an empty result means that all are closed in the order in which they were opened.
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
    const Answer result = run("compare --corpus " + slice().string());
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
    for (const char* picture : {"wave", "mel", "cepstra", "margins"})
        EXPECT_EQ(count(page, std::string("<svg class=\"") + picture + "\""), 4) << picture;
    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"}) {
        const std::size_t at = page.find(std::string("id=\"confusion-") + name + "\"");
        ASSERT_NE(at, std::string::npos) << name;
        const std::string matrix = page.substr(at, page.find("</section>", at) - at);
        int sum = 0;
        const std::regex cell("<td[^>]*>([0-9]+)");
        for (std::sregex_iterator i(matrix.begin(), matrix.end(), cell), end; i != end; ++i)
            sum += std::stoi((*i)[1]);
        EXPECT_EQ(sum, 24) << name;
    }
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
        browser + " --headless --no-sandbox --disable-gpu --window-size=1200,1600 --screenshot='" + picture +
        "' 'file://" + (folder / "report.html").string() + "' >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_GT(contents(picture).size(), 20000u); // an empty page of this size takes a quarter of that
}

// ==== models ===============================================================================================

TEST_F(Words, StoredModelsAreTheModels) {
    quietLibrary();
    KTSetHMMMode(KT_HMM_KEEP);
    std::vector<std::string> complaints;
    Progress progress;
    const FeatureExtractor extractor(FrontEnd{});
    const std::vector<Item> items =
        readItems(readCorpus(slice().string(), "", complaints).recordings, extractor, progress, complaints);
    ASSERT_EQ(items.size(), 72u);
    std::vector<const Item*> all;
    for (const Item& item : items)
        all.push_back(&item);
    const TrainingSet training = makeTrainingSet(all);
    const ModelList list{FrontEnd{}, training.words, {"any"}};

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
                const int word = flavour == Flavour::real ? loaded->recognise(items[i].features.real)
                                                          : loaded->recognise(items[i].features.fixed);
                EXPECT_EQ(word, training.utterances[i].word) << name << " " << items[i].recording.path;
            }
            EXPECT_EQ(before, after) << name << " in " << flavourName(flavour);
        }
    releaseLibrary();
}

TEST_F(Words, TrainThenRecognise) {
    const fs::path corpus = slice();
    const Answer train = run("train --corpus " + corpus.string() + " --models models");
    EXPECT_EQ(train.code, 0) << train.errors;
    for (const char* name : {"dtw", "discrete", "semicontinuous", "continuous", "mlp"})
        for (const char* flavour : {"", " --fixed"}) {
            const Answer result =
                run(std::string("recognise --models models --recogniser ") + name + flavour + " " +
                    (corpus / "seven_anna_0.flac").string() + " " + (corpus / "one_ewan_1.flac").string());
            EXPECT_EQ(result.code, 0) << result.errors;
            const std::vector<std::string> answers = lines(result.out);
            ASSERT_EQ(answers.size(), 2u) << name;
            EXPECT_TRUE(
                std::regex_search(answers[0], std::regex("seven_anna_0.flac: seven, cost -?[0-9.]+; next "
                                                         "(one|three|zero), cost [0-9a-z.]+; [0-9.]+ ms$")))
                << answers[0];
            EXPECT_NE(answers[1].find(": one, cost"), std::string::npos) << answers[1];
        }
}

TEST_F(Words, OneRecogniserCanBeTrainedAlone) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models --recogniser mlp").code, 0);
    EXPECT_EQ(run("recognise --models models " + (corpus / "one_ewan_1.flac").string()).code, 0);
    const Answer other =
        run("recognise --models models --recogniser dtw " + (corpus / "one_ewan_1.flac").string());
    EXPECT_EQ(other.code, 2);
    EXPECT_EQ(other.errors, "words: models: no models for dtw\n");
}

// ==== what is wrong with files =============================================================================

TEST_F(Words, ABadRecordingIsNamedAndTheBatchGoesOn) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --corpus " + corpus.string() + " --models models --recogniser mlp").code, 0);
    std::ofstream(folder / "text.wav") << "not a recording";
    writeWav("empty.wav", 8000, {});
    writeWav("slow.wav", 4000, tone(300, 4000, 0.5));
    writeWav("short.wav", 8000, tone(300, 8000, 0.01));
    const Answer result = run("recognise --models models missing.wav text.wav empty.wav slow.wav short.wav " +
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
    const Answer result = run("compare --recogniser mlp --report '' --corpus " + corpus.string());
    EXPECT_EQ(result.code, 2);
    const std::vector<std::string> errors = lines(result.errors);
    ASSERT_EQ(errors.size(), 3u) << result.errors;
    EXPECT_EQ(count(result.errors, "/unlabelled.flac: the name is not WORD_SPEAKER_TAKE\n"), 1);
    EXPECT_EQ(count(result.errors, "/one_anna_x.flac: the name is not WORD_SPEAKER_TAKE\n"), 1);
    EXPECT_EQ(
        count(result.errors, "/eleven_anna_0.flac: unknown label 'eleven', no training recording has it\n"),
        1);
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 24.0);
}

TEST_F(Words, WordsShorterThanTheirModelsAreLearnt) {
    const fs::path corpus = folder / "short";
    fs::create_directory(corpus);
    for (int take = 0; take < 6; ++take) { // three frames each
        writeWav("short/low_a_" + std::to_string(take) + ".wav", 8000, tone(300 + 5 * take, 8000, 0.045));
        writeWav("short/high_a_" + std::to_string(take) + ".wav", 8000, tone(2000 + 20 * take, 8000, 0.045));
    }
    const Answer result =
        run("compare --no-mean --no-variance --recogniser continuous --report '' --corpus short");
    EXPECT_EQ(result.code, 0) << result.errors;
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0], 4.0);
    EXPECT_EQ(readTable(result.out)[0].figures[6], 4.0);

    const Answer codebook = run("compare --recogniser discrete --report '' --corpus short");
    EXPECT_EQ(codebook.code, 2);
    EXPECT_EQ(codebook.errors, "words: short: too little to train from: 256 frames are wanted at least\n");
}

TEST_F(Words, SilenceIsNoReasonToFail) {
    const fs::path corpus = slice();
    ASSERT_EQ(run("train --models models --corpus " + corpus.string()).code, 0);
    writeWav("silence.wav", 8000, std::vector<float>(4000));
    writeWav("long.wav", 8000, tone(440, 8000, 20.0));
    for (const char* name : {"discrete", "semicontinuous", "continuous", "mlp"})
        for (const char* flavour : {"", " --fixed"}) {
            const Answer result =
                run(std::string("recognise --models models silence.wav --recogniser ") + name + flavour);
            EXPECT_EQ(result.code, 0) << name << flavour << ": " << result.errors;
            EXPECT_EQ(lines(result.out).size(), 1u);
        }
    const Answer unlike =
        run("recognise --models models --recogniser dtw long.wav"); // no template is half as long
    EXPECT_EQ(unlike.code, 2);
    EXPECT_EQ(unlike.errors, "words: long.wav: no word fits\n");
}

TEST_F(Words, LabelsMayComeFromAFile) {
    const fs::path corpus = slice();
    std::ofstream labels(folder / "labels.txt");
    int number = 0;
    for (const char* word : {"one", "zero"})
        for (int take = 0; take < 6; ++take) {
            const std::string name = std::to_string(++number) + ".flac";
            fs::rename(corpus / recordingName(word, "anna", take), corpus / name);
            labels << name << " " << word << " anna " << take << " # a comment\n";
        }
    labels << "13.flac\n\n14.flac one anna first\nmissing.flac one anna 4\n";
    labels.close();
    const Answer result =
        run("compare --recogniser dtw --report '' --labels labels.txt --corpus " + corpus.string());
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(count(result.errors, "words: labels.txt:13: wanted FILE WORD [SPEAKER [TAKE]]\n"), 1)
        << result.errors;
    EXPECT_EQ(count(result.errors, "words: labels.txt:15: wanted FILE WORD [SPEAKER [TAKE]]\n"), 1)
        << result.errors;
    EXPECT_EQ(count(result.errors, "/missing.flac: "), 1);
    ASSERT_EQ(readTable(result.out).size(), 1u);
    EXPECT_EQ(readTable(result.out)[0].figures[0] + readTable(result.out)[0].figures[1], 4.0);
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
        for (const std::string& damaged :
             {std::string(), whole.substr(0, whole.size() / 2), std::string(200, 'x'), whole + "x"}) {
            if (name.ends_with(".dtw") && name.starts_with("dtw") && damaged.empty())
                continue;                                                       // a word without templates
            if (name == "words.txt" && damaged.size() > whole.size()) continue; // another word
            std::ofstream(entry.path(), std::ios::binary) << damaged;
            const Answer result = run(command);
            EXPECT_EQ(result.code, 2) << name << ", " << damaged.size() << " of " << whole.size() << " bytes";
            EXPECT_EQ(lines(result.errors).size(), 1u) << result.errors;
            EXPECT_EQ(result.errors.rfind("words: models/" + name + ": ", 0), 0u) << result.errors;
        }
        std::ofstream(entry.path(), std::ios::binary) << whole;
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
        fs::copy_file(folder / "models" / from, folder / "models" / to, fs::copy_options::overwrite_existing);
        const Answer result = run("recognise --models models --recogniser " + to.substr(0, to.find('.')) +
                                  (to.find("fixed") != std::string::npos ? " --fixed " : " ") +
                                  (corpus / "one_ewan_1.flac").string());
        EXPECT_EQ(result.code, 2) << from << " as " << to;
        EXPECT_EQ(result.errors.rfind("words: models/" + to + ": damaged, ", 0), 0u) << result.errors;
        std::ofstream(folder / "models" / to, std::ios::binary) << whole;
    }
}

TEST_F(Words, WrongArgumentsAreRefused) {
    for (const char* arguments : {"", "listen", "compare", "compare --corpus nowhere", "compare --corpus . ",
                                  "recognise --models nowhere x.wav", "compare --corpus . --recogniser best",
                                  "features", "features nothing.wav"}) {
        const Answer result = run(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_NE(result.errors, "") << arguments;
    }
    EXPECT_EQ(run("--help").code, 0);
}

// ==== features and audio ===================================================================================

TEST_F(Words, FeaturesAsTextAndAsFiles) {
    writeWav("tone.wav", 8000, tone(700, 8000, 0.5));
    const Answer printed = run("features tone.wav");
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
    EXPECT_EQ(npy.substr(10, 60).rfind("{'descr': '<f4', 'fortran_order': False, 'shape': (48, 39), ", 0),
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
    const Samples samples = readRecording((fs::path(WORDS_CORPUS) / "five_carol_2.flac").string());
    const Matrix<float> real = extractor.real(samples);
    const Matrix<short> fixed = extractor.fixed(samples);
    ASSERT_EQ(real.rows(), fixed.rows());
    double squares = 0.0;
    for (int t = 0; t < real.rows(); ++t)
        for (int i = 0; i < real.columns(); ++i)
            squares += std::pow(real.row(t)[i] - fixed.row(t)[i] * KTPower2(featureScale), 2);
    // A deviation of 1 stands at 1; cepstra have units of 2^-10 and second differences a deviation of about 0.03 of them.
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
            largest =
                std::max(largest, std::abs(samples[i] / 32768.0 -
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

// ==== real speech ==========================================================================================

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
    const Answer result = run(std::string("compare --test-takes 5 --corpus ") + WORDS_REAL_CORPUS);
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
    const Answer result =
        run(std::string("compare --recogniser continuous --leave-out speaker --report '' --corpus ") +
            WORDS_REAL_CORPUS);
    ASSERT_EQ(result.code, 0) << result.errors;
    const std::vector<Row> rows = readTable(result.out);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_GE(rows[0].figures[2], 80.0);
}

} // namespace
