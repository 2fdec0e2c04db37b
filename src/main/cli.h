#pragma once

#include "backenderror.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// The command-line test mode: one test against the live services, its output on standard output and
// an exit code, without any window.
namespace CLI {

enum class Test { answer, speech };

struct Request {
    Test test;
    QString argument;
};

// The argument rule: the flag exactly as argument 1 and something after it; later arguments are ignored.
std::optional<Request> requestedTest(const QStringList& arguments);

// When a test is asked for, runs it on an event loop of its own and returns the exit code; otherwise
// returns nothing and has started nothing.
std::optional<int> runIfRequested(int& argc, char** argv);

using Finished = std::function<void(std::optional<Failure>)>;

// Streams one answer to standard output, piece by piece, then the timing line.
void testAnswer(const QString& question, Finished finished);

// Streams an audio file through one speech stream and prints what the service recognises.
void testSTT(const QString& path, Finished finished);

}  // namespace CLI
