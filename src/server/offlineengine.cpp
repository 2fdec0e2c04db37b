#include "offlineengine.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <set>
#include <string_view>

namespace server {

namespace {

// Words that say nothing about which experience a question is after.
const std::set<std::string, std::less<>>& stopWords() {
    static const std::set<std::string, std::less<>> words = {
        "a",       "about", "an",      "and",   "any",   "are",   "as",    "at",    "be",       "been",
        "but",     "by",    "can",     "could", "did",   "do",    "does",  "for",   "from",     "give",
        "had",     "has",   "have",    "how",   "i",     "if",    "in",    "into",  "is",       "it",
        "its",     "me",    "my",      "of",    "on",    "or",    "our",   "so",    "some",     "tell",
        "than",    "that",  "the",     "their", "them",  "then",  "there", "these", "they",     "this",
        "time",    "to",    "us",      "was",   "we",    "were",  "what",  "when",  "where",    "which",
        "while",   "who",   "why",     "will",  "with",  "would", "you",   "your",  "describe", "example",
        "explain", "walk",  "through", "talk",  "share", "used",
    };
    return words;
}

// A light English stemmer: "-ing", "-ed" and a plural "s" go, so that "mentoring" meets "mentored" and
// "projects" meets "project". Short words keep their endings ("used", "bus").
void stem(std::string& word) {
    for (const std::string_view suffix : {"ing", "ed"}) {
        if (word.size() >= suffix.size() + 4 && word.ends_with(suffix)) {
            word.resize(word.size() - suffix.size());
            return;
        }
    }
    if (word.size() > 3 && word.back() == 's' && word[word.size() - 2] != 's') {
        word.pop_back();
    }
}

// Lower-cased words of letters and digits; bytes of multi-byte characters count as letters, so words in
// other scripts survive whole.
std::vector<std::string> terms(std::string_view text) {
    std::vector<std::string> words;
    std::string word;
    auto flush = [&] {
        if (!word.empty() && !stopWords().contains(word)) {
            stem(word);
            words.push_back(word);
        }
        word.clear();
    };
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || byte >= 0x80 || c == '+' || c == '#') {
            word += static_cast<char>(std::tolower(byte));
        } else {
            flush();
        }
    }
    flush();
    return words;
}

std::string_view trimmed(std::string_view line) {
    const auto begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    const auto end = line.find_last_not_of(" \t\r");
    return line.substr(begin, end - begin + 1);
}

// A resume line without its own bullet, so that the list the engine writes has one bullet per line.
std::string withoutBullet(std::string_view line) {
    for (const std::string_view bullet : {"- ", "* ", "• ", "· ", "– "}) {
        if (line.starts_with(bullet)) {
            return std::string(trimmed(line.substr(bullet.size())));
        }
    }
    return std::string(line);
}

}  // namespace

std::vector<std::string> relevantResumeLines(const std::string& question, const std::string& resume,
                                             std::size_t limit) {
    std::vector<std::string> lines;
    std::vector<std::map<std::string, int>> frequencies;
    std::size_t start = 0;
    while (start <= resume.size()) {
        const auto end = resume.find('\n', start);
        const auto line =
            trimmed(std::string_view(resume).substr(start, end == std::string::npos ? end : end - start));
        if (!line.empty()) {
            std::map<std::string, int> counts;
            for (const auto& term : terms(line)) {
                ++counts[term];
            }
            lines.push_back(withoutBullet(line));
            frequencies.push_back(std::move(counts));
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    if (lines.empty()) {
        return {};
    }

    double totalLength = 0;
    std::map<std::string, int> documentFrequency;
    for (const auto& counts : frequencies) {
        for (const auto& [term, count] : counts) {
            totalLength += count;
            ++documentFrequency[term];
        }
    }
    const double averageLength = std::max(1.0, totalLength / static_cast<double>(lines.size()));
    const std::set<std::string> queryTerms = [&] {
        const auto words = terms(question);
        return std::set<std::string>(words.begin(), words.end());
    }();

    constexpr double k1 = 1.2;
    constexpr double b = 0.75;
    const auto documents = static_cast<double>(lines.size());
    std::vector<std::pair<double, std::size_t>> scored;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        double length = 0;
        for (const auto& [term, count] : frequencies[i]) {
            length += count;
        }
        double score = 0;
        for (const auto& term : queryTerms) {
            const auto found = frequencies[i].find(term);
            if (found == frequencies[i].end()) {
                continue;
            }
            const double df = documentFrequency[term];
            const double idf = std::log(1.0 + (documents - df + 0.5) / (df + 0.5));
            const double tf = found->second;
            score += idf * tf * (k1 + 1) / (tf + k1 * (1 - b + b * length / averageLength));
        }
        if (score > 0) {
            scored.emplace_back(score, i);
        }
    }
    // Equal scores keep the resume's own order.
    std::stable_sort(scored.begin(), scored.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });

    std::vector<std::string> best;
    for (std::size_t i = 0; i < scored.size() && i < limit; ++i) {
        best.push_back(lines[scored[i].second]);
    }
    return best;
}

std::string OfflineEngine::reply(const AnswerQuery& query) {
    std::string text =
        "I'm answering offline: this server has no language model set up, so I can't write a full answer.";
    if (query.resume.find_first_not_of(" \t\r\n") == std::string::npos) {
        return text + " There is no resume to draw on either; add one in Settings.\n";
    }
    const auto lines = relevantResumeLines(query.question, query.resume, 5);
    if (lines.empty()) {
        return text + " No line of your resume matches this question.\n";
    }
    text += " These lines of your resume are the closest to the question:\n\n";
    for (const auto& line : lines) {
        text += "- " + line + "\n";
    }
    return text;
}

void OfflineEngine::answer(const AnswerQuery& query, AnswerSink& sink) {
    // Pieces of a few words, as a model would send them, so that clients see the same kind of stream.
    const std::string text = reply(query);
    std::size_t start = 0;
    int words = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ' || text[i] == '\n') {
            if (++words == 4 || text[i] == '\n') {
                if (!sink.text(std::string_view(text).substr(start, i + 1 - start))) {
                    return;
                }
                start = i + 1;
                words = 0;
            }
        }
    }
    if (start < text.size()) {
        sink.text(std::string_view(text).substr(start));
    }
}

}  // namespace server
