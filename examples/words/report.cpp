#include "report.h"

#include "files.h"
#include "picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>

namespace words {
namespace {

constexpr const char* style = R"(
:root { color-scheme: light dark; --ink: #1c2430; --paper: #ffffff; --faint: #d9dfe7; --mark: #0b6bcb;
  --good: 11 107 203; --bad: 200 60 40; }
@media (prefers-color-scheme: dark) {
  :root { --ink: #dde3ea; --paper: #14181d; --faint: #36404c; --mark: #66b0ff; --good: 90 165 250; --bad: 240 120 100; }
}
* { box-sizing: border-box; }
body { font: 15px/1.45 system-ui, sans-serif; color: var(--ink); background: var(--paper); max-width: 1180px;
  margin: 2em auto; padding: 0 1em; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
td, th { padding: .25em .6em; text-align: right; border-bottom: 1px solid var(--faint); }
td:first-child, th:first-child { text-align: left; white-space: nowrap; }
.scroll { overflow-x: auto; max-width: 100%; }
.matrices, .words { display: flex; flex-wrap: wrap; gap: 1.5em 2em; }
.matrices section { min-width: 0; max-width: 100%; }
.words section { width: 378px; max-width: 100%; }
.confusion td, .confusion th { padding: .15em .4em; font-size: 12px; min-width: 1.6em; }
figure { margin: .5em 0 1em; } figcaption { font-size: 12px; opacity: .75; }
svg { display: block; width: 100%; } svg svg { width: auto; } svg text { fill: var(--ink); font-size: 9px; }
.wave g path { stroke: var(--mark); fill: none; stroke-width: 1; }
.axis { stroke: var(--ink); fill: none; stroke-width: .7; } .grid { stroke: var(--ink); stroke-width: .5; opacity: .5; }
.bar { fill: var(--faint); } .bar.best { fill: var(--mark); } .fixed { stroke: var(--bad-line); stroke-width: 2; }
:root { --bad-line: rgb(var(--bad)); }
th[colspan] { text-align: center; }
)";

/// A table that is wider than the page scrolls in a box of its own.
std::string boxed(const std::string& table) {
    return "<div class=\"scroll\" tabindex=\"0\">" + table + "</div>\n";
}

/// With a speaker left out in turn: the share of right words for each, in float and in fixed point.
std::string bySpeaker(const Comparison& comparison) {
    const std::vector<Share>& speakers = comparison.results.front().outcomes[0].shares;
    if (speakers.empty()) return "";
    std::string text = "<table id=\"speakers\">\n<tr><th></th>";
    for (const Share& share : speakers)
        text += fmt::format("<th>{}</th>", escaped(share.speaker));
    text += "</tr>\n";
    for (const Result& result : comparison.results)
        for (const Flavour flavour : flavours) {
            text += fmt::format("<tr><th>{}, {}</th>", escaped(result.title), flavourName(flavour));
            for (const Share& share : result.outcomes[static_cast<std::size_t>(flavour)].shares)
                text += fmt::format("<td style=\"background:rgb(var(--bad) / {:.2f})\">{:.1f}</td>",
                                    0.8 * (1.0 - share.percent / 100.0), share.percent);
            text += "</tr>\n";
        }
    return "<h2>Speakers that were left out, words right in per cent</h2>\n" +
           boxed(text + "</table>");
}

std::string summary(const Comparison& comparison) {
    std::string text =
        "<table id=\"summary\">\n<thead><tr><th rowspan=\"2\">recogniser</th>"
        "<th colspan=\"6\">float</th><th colspan=\"6\">16-bit fixed point</th></tr>\n<tr>";
    for (int flavour = 0; flavour < 2; ++flavour)
        for (const char* heading :
             {"right", "wrong", "%", "&#181;s a word", "&#215; real time", "KB"})
            text += fmt::format("<th>{}</th>", heading);
    text += "</tr></thead>\n<tbody>\n";
    for (const Result& result : comparison.results) {
        text += fmt::format("<tr><td>{}</td>", escaped(result.title));
        for (const Outcome& outcome : result.outcomes)
            text += fmt::format("<td>{}</td><td>{}</td><td>{:.2f}</td><td>{:.0f}</td><td>{:.0f}</"
                                "td><td>{:.0f}</td>",
                                outcome.right, outcome.errors(), outcome.accuracy(),
                                outcome.microseconds(), comparison.timesRealTime(outcome),
                                static_cast<double>(outcome.bytes) / 1024.0);
        text += "</tr>\n";
    }
    return boxed(text + "</tbody></table>") + bySpeaker(comparison);
}

// / Rows are what was said, columns what was understood. Cells hold the float model's count, and
// behind a stroke that of the / fixed one where it differs.
std::string confusion(const Comparison& comparison, const Result& result) {
    const int nWords = static_cast<int>(comparison.words.size());
    std::string text = "<table class=\"confusion\">\n<tr><th></th>";
    for (const std::string& word : comparison.words)
        text += fmt::format("<th>{}</th>", escaped(word));
    text += "<th>none</th></tr>\n";
    for (int spoken = 0; spoken < nWords; ++spoken) {
        text += fmt::format("<tr><th>{}</th>",
                            escaped(comparison.words[static_cast<std::size_t>(spoken)]));
        const int* real = result.outcomes[0].confusion.row(spoken);
        const int* fixed = result.outcomes[1].confusion.row(spoken);
        int total = 0;
        for (int answer = 0; answer <= nWords; ++answer)
            total += real[answer];
        for (int answer = 0; answer <= nWords; ++answer) {
            const double share = total > 0 ? static_cast<double>(real[answer]) / total : 0.0;
            const std::string counts = real[answer] == fixed[answer]
                                           ? fmt::format("{}", real[answer])
                                           : fmt::format("{}/{}", real[answer], fixed[answer]);
            text += fmt::format("<td style=\"background:rgb(var(--{}) / {:.2f})\">{}</td>",
                                answer == spoken ? "good" : "bad",
                                answer == spoken ? 0.5 * share : std::min(0.8, 4.0 * share),
                                counts == "0" ? "" : counts);
        }
        text += "</tr>\n";
    }
    return fmt::format("<section id=\"confusion-{}\"><h3>{}</h3>\n{}</section>\n", result.name,
                       escaped(result.title), boxed(text + "</table>"));
}

Axis timeAxis(double duration) {
    return {"time, s", roundTicks(duration)};
}

/// The range of the samples under each of the picture's columns.
std::string waveform(const Samples& samples) {
    constexpr int height = 60;
    std::string path;
    const std::size_t n = samples.size();
    const auto place = [](short sample) { return height / 2 * (1.0 - sample / 32768.0); };
    for (std::size_t x = 0; x < plotWidth; ++x) {
        const auto from = samples.begin() + static_cast<std::ptrdiff_t>(x * n / plotWidth);
        const auto to = std::max(
            from + 1, samples.begin() + static_cast<std::ptrdiff_t>((x + 1) * n / plotWidth));
        const auto [low, high] = std::minmax_element(from, std::min(to, samples.end()));
        path += fmt::format("M{}.5 {:.1f}V{:.1f}", x, place(*high), place(*low) + 0.5);
    }
    return plot("wave", "<path d=\"" + path + "\"/>", height, timeAxis(seconds(samples)),
                {"amplitude", {{0.0, "-1"}, {0.5, "0"}, {1.0, "1"}}},
                fmt::format("waveform, {:.2f} s; 1 is full scale", seconds(samples)));
}

double frameSeconds(int nFrames) {
    return nFrames * 0.01;
}

/// The filters are evenly spread on the mel scale.
std::string melPicture(const Matrix<float>& energies) {
    const auto mel = [](double frequency) { return 1127.0 * std::log(1.0 + frequency / 700.0); };
    Axis frequency{"frequency, Hz", {}};
    for (const int hertz : {200, 500, 1000, 2000, 3500}) {
        const double place =
            (mel(hertz) - mel(lowFrequency)) / (mel(highFrequency) - mel(lowFrequency));
        frequency.ticks.push_back(
            {(place * (nFilters + 1) - 0.5) / nFilters, fmt::format("{}", hertz)});
    }
    constexpr int height = 96;
    return plot("mel", heatMap(energies, height), height, timeAxis(frameSeconds(energies.rows())),
                frequency, "energies of mel filters, natural logarithms");
}

std::string cepstraPicture(const Matrix<float>& cepstra) {
    constexpr int height = 78;
    Axis index{"coefficient", {}};
    for (int i = 0; i < nCepstra; i += 4)
        index.ticks.push_back({(i + 0.5) / nCepstra, fmt::format("{}", i)});
    return plot("cepstra", heatMap(cepstra, height), height, timeAxis(frameSeconds(cepstra.rows())),
                index, "cepstra as the models see them, deviations from the mean");
}

/// The features that the models see, the cepstra alone, with coefficient 0 at the bottom.
Matrix<float> staticPart(const Matrix<float>& features) {
    Matrix<float> result(features.rows(), nCepstra);
    for (int t = 0; t < features.rows(); ++t)
        std::copy_n(features.row(t), nCepstra, result.row(t));
    return result;
}

/// The words that are nearest, ten at most, in the order of the vocabulary.
std::vector<std::size_t> nearestWords(const std::vector<double>& costs) {
    std::vector<std::size_t> order(costs.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return costs[a] < costs[b]; });
    order.resize(std::min<std::size_t>(order.size(), 10));
    std::sort(order.begin(), order.end());
    return order;
}

// / What fits under a bar: six characters, each of which has one byte that is no continuation
// (UTF-8).
std::string shortened(const std::string& word) {
    std::size_t end = 0;
    for (int characters = 0; end < word.size(); ++end)
        if ((static_cast<unsigned char>(word[end]) & 0xc0) != 0x80 && ++characters > 6) break;
    return word.substr(0, end);
}

/// A bar a word for float, and a line across it for fixed point.
std::string costPlot(const Comparison& comparison, const Result& result, std::size_t example) {
    constexpr int height = 60;
    constexpr double largest = 300.0; // what is worse looks the same
    const std::vector<double>& real = result.exampleCosts[0][example];
    const std::vector<double>& fixed = result.exampleCosts[1][example];
    const std::vector<std::size_t> order = nearestWords(real);
    const double best = *std::min_element(real.begin(), real.end());
    const double step = static_cast<double>(plotWidth) / static_cast<double>(order.size());
    Axis names{fmt::format("word; {}", result.title), {}};
    std::string bars;
    for (std::size_t i = 0; i < order.size(); ++i) {
        const double x = step * (static_cast<double>(i) + 0.1);
        const double level = height * std::min(1.0, real[order[i]] / largest);
        bars += fmt::format(
            "<rect class=\"bar{}\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\"/>"
            "<path class=\"fixed\" d=\"M{:.1f} {:.1f}h{:.1f}\"/>",
            real[order[i]] <= best ? " best" : "", x, height - level, 0.8 * step,
            std::max(0.5, level), x, height - height * std::min(1.0, fixed[order[i]] / largest),
            0.8 * step);
        names.ticks.push_back(
            {(x + 0.4 * step) / plotWidth, shortened(comparison.words[order[i]])});
    }
    bars += fmt::format("<path class=\"grid\" d=\"M0 {0}h{2}M0 {1}h{2}\"/>", height / 3,
                        2 * height / 3, plotWidth);
    return plot(
        "costs", bars, height, names,
        {"cost", {{0.0, "0"}, {1.0 / 3, "100"}, {2.0 / 3, "200"}, {1.0, "300"}}},
        fmt::format(
            "cost of each word: bars float, lines fixed point; none above {:.0f} and {:.0f}",
            result.limits[0], result.limits[1]));
}

std::string pictures(const Comparison& comparison, const FeatureExtractor& extractor) {
    std::string text;
    for (std::size_t i = 0; i < comparison.examples.size(); ++i) {
        const Item& item = *comparison.examples[i];
        text += fmt::format(
            "<section id=\"word-{0}\"><h3>{0}</h3><p>{1}</p>\n", escaped(item.recording.word),
            escaped(std::filesystem::path(item.recording.path).filename().string()));
        text += waveform(extractor.speech(item.samples));
        text += melPicture(extractor.melEnergies(item.samples));
        text += cepstraPicture(staticPart(item.features.real));
        for (const Result& result : comparison.results)
            text += costPlot(comparison, result, i);
        text += "</section>\n";
    }
    return text;
}

} // namespace

void writeReport(const std::string& path, const Comparison& comparison,
                 const FeatureExtractor& extractor, const std::string& split) {
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"/>\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
                       "<title>Word recognisers compared</title>\n";
    page += fmt::format("<style>{}</style></head>\n<body>\n<h1>Word recognisers compared</h1>\n",
                        style);
    page += fmt::format(
        "<p>{} words, {} recordings for training, {} for testing ({:.0f} s of speech); {}. "
        "Times are those of one core, for features and recognition.</p>\n",
        comparison.words.size(), comparison.nTraining, comparison.nTest, comparison.testSeconds,
        escaped(split));
    page += summary(comparison);
    page += "<h2>What was taken for what</h2>\n<p>Rows were said, columns understood. Where float "
            "and fixed "
            "point differ, both counts are given.</p>\n<div class=\"matrices\">\n";
    for (const Result& result : comparison.results)
        page += confusion(comparison, result);
    page += "</div>\n<h2>One utterance of each word</h2>\n<p>Costs have one scale: 100 is usual "
            "for the word "
            "that was said, 200 for the nearest other one.</p>\n<div class=\"words\">\n";
    page += pictures(comparison, extractor) + "</div>\n</body></html>\n";
    writeFile(path, page);
}

} // namespace words
