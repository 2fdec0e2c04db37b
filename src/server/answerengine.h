#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace server {

struct SpokenLine {
    std::string speaker;  // "interviewer" or "me"
    std::string text;
};

// One question to answer, with everything the candidate gave to ground it.
struct AnswerQuery {
    std::string question;
    std::vector<SpokenLine> transcript;
    std::string resume;
    std::string jobDescription;
    std::string extraInstructions;
};

// Where an engine writes the answer while it is being produced.
class AnswerSink {
public:
    virtual ~AnswerSink() = default;
    // Sends one piece; false once the client has gone, and the engine then stops at once.
    virtual bool text(std::string_view piece) = 0;
    // Sends nothing the client reads, only to find out whether it is still there during a long silence.
    virtual bool stillThere() = 0;
    // Ends the answer with a failure the user can read; nothing is written after it.
    virtual void fail(std::string_view message) = 0;
};

class AnswerEngine {
public:
    virtual ~AnswerEngine() = default;
    // Blocks until the answer is complete, has failed, or the client has gone.
    virtual void answer(const AnswerQuery& query, AnswerSink& sink) = 0;
};

}  // namespace server
