#pragma once

#include "answerengine.h"

#include <nlohmann/json.hpp>

namespace server {

// The chat messages (a system and a user message) that ask a language model for the candidate's answer.
nlohmann::json chatMessages(const AnswerQuery& query);

}  // namespace server
