#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace words {
namespace {

constexpr int pictureWidth = 360;
constexpr int nShades = 16;

constexpr const char* style = R"(
:root { --ink: #1c2430; --paper: #ffffff; --faint: #d9dfe7; --mark: #0b6bcb; --good: 11 107 203; --bad: 200 60 40; }
@media (prefers-color-scheme: dark) {
  :root { --ink: #dde3ea; --paper: #14181d; --faint: #36404c; --mark: #66b0ff; --good: 90 165 250; --bad: 240 120 100; }
}
body { font: 15px/1.45 system-ui, sans-serif; color: var(--ink); background: var(--paper); max-width: 1180px;
  margin: 2em auto; padding: 0 1em; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
td, th { padding: .25em .6em; text-align: right; border-bottom: 1px solid var(--faint); }
td:first-child, th:first-child { text-align: left; }
.matrices, .words { display: flex; flex-wrap: wrap; gap: 1.5em 2em; }
.words section { width: 360px; }
.confusion td, .confusion th { padding: .15em .4em; font-size: 12px; min-width: 1.6em; }
figure { margin: .5em 0; } figcaption { font-size: 12px; opacity: .75; }
svg { display: block; width: 100%; }
.wave { stroke: var(--mark); fill: none; stroke-width: 1; }
.bar { fill: var(--faint); } .bar.best { fill: var(--mark); } svg text { fill: var(--ink); font-size: 9px; }
th[colspan] { text-align: center; }
)";

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text)
        if (c == '<')
            result += "&lt;";
        else if (c == '>')
            result += "&gt;";
        else if (c == '&')
            result += "&amp;";
        else if (c == '"')
            result += "&quot;";
        else
            result += c;
    return result;
}

/// With a speaker left out in turn: the share of right words for each, in float and in fixed point.
std::string bySpeaker(const Comparison& comparison) {
    if (comparison.results.front().outcomes[0].folds.empty()) return "";
    std::string text =
        "<h2>Speakers that were left out, words right in per cent</h2>\n<table id=\"speakers\">\n";
    for (const Result& result : comparison.results)
        for (const Flavour flavour : flavours) {
            text += fmt::format("<tr><th>{}, {}</th>", escaped(result.title), flavourName(flavour));
            for (const std::string& fold : result.outcomes[static_cast<std::size_t>(flavour)].folds)
                text += fmt::format("<td>{}</td>", escaped(fold));
            text += "</tr>\n";
        }
    return text + "</table>\n";
}

std::string summary(const Comparison& comparison) {
    std::string text = "<table id=\"summary\">\n<thead><tr><th rowspan=\"2\">recogniser</th>"
                       "<th colspan=\"6\">float</th><th colspan=\"6\">16-bit fixed point</th></tr>\n<tr>";
    for (int flavour = 0; flavour < 2; ++flavour)
        for (const char* heading : {"right", "wrong", "%", "&#181;s a word", "&#215; real time", "KB"})
            text += fmt::format("<th>{}</th>", heading);
    text += "</tr></thead>\n<tbody>\n";
    for (const Result& result : comparison.results) {
        text += fmt::format("<tr><td>{}</td>", escaped(result.title));
        for (const Outcome& outcome : result.outcomes)
            text += fmt::format(
                "<td>{}</td><td>{}</td><td>{:.2f}</td><td>{:.0f}</td><td>{:.0f}</td><td>{:.0f}</td>",
                outcome.right, outcome.errors(), outcome.accuracy(), outcome.microseconds(),
                comparison.timesRealTime(outcome), static_cast<double>(outcome.bytes) / 1024.0);
        text += "</tr>\n";
    }
    return text + "</tbody></table>\n" + bySpeaker(comparison);
}

/// Rows are what was said, columns what was understood. Cells hold the float model's count, and behind a stroke that of the
/// fixed one where it differs.
std::string confusion(const Comparison& comparison, const Result& result) {
    const int nWords = static_cast<int>(comparison.words.size());
    std::string text =
        fmt::format("<section id=\"confusion-{}\"><h3>{}</h3>\n<table class=\"confusion\">\n<tr><th></th>",
                    result.name, escaped(result.title));
    for (const std::string& word : comparison.words)
        text += fmt::format("<th>{}</th>", escaped(word));
    text += "<th>none</th></tr>\n";
    for (int spoken = 0; spoken < nWords; ++spoken) {
        text += fmt::format("<tr><th>{}</th>", escaped(comparison.words[static_cast<std::size_t>(spoken)]));
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
            text += fmt::format(
                "<td style=\"background:rgb(var(--{}) / {:.2f})\">{}</td>", answer == spoken ? "good" : "bad",
                answer == spoken ? 0.5 * share : std::min(0.8, 4.0 * share), counts == "0" ? "" : counts);
        }
        text += "</tr>\n";
    }
    return text + "</table></section>\n";
}

/// The range of the samples under each of the picture's columns.
std::string waveform(const Samples& samples) {
    constexpr int height = 60;
    std::string path;
    const std::size_t n = samples.size();
    const auto [lowest, highest] = std::minmax_element(samples.begin(), samples.end());
    const double largest = std::max({1, -*lowest, static_cast<int>(*highest)});
    for (std::size_t x = 0; x < pictureWidth; ++x) {
        const auto from = samples.begin() + static_cast<std::ptrdiff_t>(x * n / pictureWidth);
        const auto to =
            std::max(from + 1, samples.begin() + static_cast<std::ptrdiff_t>((x + 1) * n / pictureWidth));
        const auto [low, high] = std::minmax_element(from, std::min(to, samples.end()));
        path += fmt::format("M{}.5 {:.1f}V{:.1f}", x, height / 2 * (1.0 - *high / largest),
                            height / 2 * (1.0 - *low / largest) + 0.5);
    }
    return fmt::format("<figure><svg class=\"wave\" viewBox=\"0 0 {} {}\" role=\"img\"><path d=\"{}\"/></svg>"
                       "<figcaption>waveform, {:.2f} s</figcaption></figure>\n",
                       pictureWidth, height, path, seconds(samples));
}

/// A table in shades: rows of the picture are the table's columns from below. One path a shade keeps the page small.
std::string heatMap(const Matrix<float>& values, const char* name, const char* caption) {
    const int nRows = values.rows(), nColumns = values.columns();
    float low = values.row(0)[0], high = low;
    for (int t = 0; t < nRows; ++t) {
        const auto [least, most] = std::minmax_element(values.row(t), values.row(t) + nColumns);
        low = std::min(low, *least);
        high = std::max(high, *most);
    }
    std::vector<std::string> paths(nShades);
    for (int t = 0; t < nRows; ++t)
        for (int i = 0; i < nColumns; ++i) {
            const float place = high > low ? (values.row(t)[i] - low) / (high - low) : 0.0f;
            const int shade = std::min(nShades - 1, static_cast<int>(place * nShades));
            paths[static_cast<std::size_t>(shade)] += fmt::format("M{} {}h1v1h-1z", t, nColumns - 1 - i);
        }
    std::string text =
        fmt::format("<figure><svg class=\"{}\" viewBox=\"0 0 {} {}\" preserveAspectRatio=\"none\" "
                    "style=\"height:{}px\" shape-rendering=\"crispEdges\" role=\"img\">",
                    name, nRows, nColumns, 4 * nColumns);
    for (int shade = 0; shade < nShades; ++shade) { // from dark blue to yellow
        const double x = static_cast<double>(shade) / (nShades - 1);
        text += fmt::format("<path fill=\"rgb({:.0f},{:.0f},{:.0f})\" d=\"{}\"/>", 255 * std::pow(x, 0.9),
                            230 * std::pow(x, 1.3) + 10, 90 + 60 * std::sin(3.14 * x) - 60 * x,
                            paths[static_cast<std::size_t>(shade)]);
    }
    return text + fmt::format("</svg><figcaption>{}</figcaption></figure>\n", caption);
}

/// The features that the models see, the cepstra alone, with coefficient 0 at the bottom.
Matrix<float> staticPart(const Matrix<float>& features) {
    Matrix<float> result(features.rows(), nCepstra);
    for (int t = 0; t < features.rows(); ++t)
        std::copy_n(features.row(t), nCepstra, result.row(t));
    return result;
}

/// For each recogniser a row of bars, one a word: full for the best fit, none for the worst.
std::string margins(const Comparison& comparison, std::size_t example) {
    constexpr int rowHeight = 34, barHeight = 20, labelWidth = 90;
    const int nWords = static_cast<int>(comparison.words.size());
    const double step = static_cast<double>(pictureWidth - labelWidth) / nWords;
    const int height = rowHeight * static_cast<int>(comparison.results.size());
    std::string text = fmt::format("<figure><svg class=\"margins\" viewBox=\"0 0 {} {}\" role=\"img\">",
                                   pictureWidth, height);
    int top = 0;
    for (const Result& result : comparison.results) {
        const std::vector<double>& costs = result.exampleCosts[example];
        const double best = *std::min_element(costs.begin(), costs.end());
        double worst = best;
        for (const double cost : costs) // impossible words have infinite costs
            if (cost < 1e30) worst = std::max(worst, cost);
        text += fmt::format("<text x=\"0\" y=\"{}\">{}</text>", top + barHeight - 4, escaped(result.name));
        for (int word = 0; word < nWords; ++word) {
            const double cost = std::min(costs[static_cast<std::size_t>(word)], worst);
            const double share = worst > best ? (worst - cost) / (worst - best) : 1.0;
            const double x = labelWidth + step * word;
            text += fmt::format(
                "<rect class=\"bar{}\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\"/>"
                "<text x=\"{:.1f}\" y=\"{}\" text-anchor=\"middle\">{}</text>",
                cost <= best ? " best" : "", x, top + barHeight * (1.0 - share), 0.8 * step,
                std::max(0.5, barHeight * share), x + 0.4 * step, top + barHeight + 10,
                escaped(comparison.words[static_cast<std::size_t>(word)].substr(0, 5)));
        }
        top += rowHeight;
    }
    return text + "</svg><figcaption>how well each word fits</figcaption></figure>\n";
}

std::string pictures(const Comparison& comparison, const FeatureExtractor& extractor) {
    std::string text;
    for (std::size_t i = 0; i < comparison.examples.size(); ++i) {
        const Item& item = *comparison.examples[i];
        text += fmt::format("<section id=\"word-{0}\"><h3>{0}</h3><p>{1}</p>\n", escaped(item.recording.word),
                            escaped(std::filesystem::path(item.recording.path).filename().string()));
        text += waveform(extractor.speech(item.samples));
        text +=
            heatMap(extractor.melEnergies(item.samples), "mel", "mel energies, logarithms, 100 to 3800 Hz");
        text += heatMap(staticPart(item.features.real), "cepstra", "cepstra as the models see them");
        text += margins(comparison, i) + "</section>\n";
    }
    return text;
}

} // namespace

void writeReport(const std::string& path, const Comparison& comparison, const FeatureExtractor& extractor,
                 const std::string& split) {
    std::ofstream file(path);
    file << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"/>\n<title>Word recognisers "
            "compared</title>\n"
         << "<style>" << style << "</style></head>\n<body>\n<h1>Word recognisers compared</h1>\n"
         << fmt::format("<p>{} words, {} recordings for training, {} for testing ({:.0f} s of speech); {}. "
                        "Times are those of "
                        "one core, for features and recognition.</p>\n",
                        comparison.words.size(), comparison.nTraining, comparison.nTest,
                        comparison.testSeconds, escaped(split))
         << summary(comparison) << "<h2>What was taken for what</h2>\n"
         << "<p>Rows were said, columns understood. Where float and fixed point differ, both counts are "
            "given.</p>\n"
         << "<div class=\"matrices\">\n";
    for (const Result& result : comparison.results)
        file << confusion(comparison, result);
    file << "</div>\n<h2>One utterance of each word</h2>\n<div class=\"words\">\n"
         << pictures(comparison, extractor) << "</div>\n</body></html>\n";
    file.close();
    if (!file) throw Failure(path + ": could not be written");
}

} // namespace words
