#include "prompt.h"

namespace server {

namespace {

constexpr const char* rules =
    R"(You help a candidate during a live job interview. Write the answer the candidate will say next.

- Speak in the first person, as the candidate, in a natural spoken tone.
- Ground every claim in the resume. Never invent employers, projects, titles, numbers or skills the resume does not show; when it has nothing relevant, say how you would approach the problem instead.
- Keep it short enough to say aloud: short paragraphs and bullet points, no preamble and no closing remarks.
- For behavioural questions (a time when, an example of, how did you handle), use STAR: Situation, Task, Action, Result.
- For coding questions, put the code in one fenced code block with its language, then explain it in a few bullets.
- Tailor the answer to the job description when one is given.
- Follow the candidate's own instructions when given, unless they ask you to invent experience.)";

void section(std::string& text, const char* title, const std::string& body) {
    if (body.find_first_not_of(" \t\r\n") == std::string::npos) {
        return;
    }
    text += "\n\n## ";
    text += title;
    text += "\n";
    text += body;
}

}  // namespace

nlohmann::json chatMessages(const AnswerQuery& query) {
    std::string system = rules;
    section(system, "Resume", query.resume);
    section(system, "Job description", query.jobDescription);
    section(system, "Candidate's instructions", query.extraInstructions);

    std::string user;
    if (!query.transcript.empty()) {
        user += "The conversation so far:\n";
        for (const auto& line : query.transcript) {
            user += line.speaker == "me" ? "Candidate: " : "Interviewer: ";
            user += line.text;
            user += '\n';
        }
        user += '\n';
    }
    user += "The question to answer now:\n";
    user += query.question;

    return nlohmann::json::array({
        {{"role", "system"}, {"content", system}},
        {{"role", "user"}, {"content", user}},
    });
}

}  // namespace server
