#pragma once

#include "answerengine.h"

#include <cstddef>
#include <string>
#include <vector>

namespace server {

// The resume's lines that share the most with the question, best first, ranked by BM25 over the
// lines as documents; lines that share no term are left out.
std::vector<std::string> relevantResumeLines(const std::string& question, const std::string& resume,
                                             std::size_t limit);

// Answers without a language model: says so, and lists the resume lines closest to the question, so the
// whole product can be tried on one machine without any outside account.
class OfflineEngine final : public AnswerEngine {
public:
    void answer(const AnswerQuery& query, AnswerSink& sink) override;

    // What the engine writes for `query`, before it is cut into pieces.
    static std::string reply(const AnswerQuery& query);
};

}  // namespace server
