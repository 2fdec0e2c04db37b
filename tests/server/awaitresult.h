#pragma once

#include "backenderror.h"

#include <QDeadlineTimer>
#include <QTest>

#include <optional>

// Runs an asynchronous client call and spins the event loop until its completion arrives (the server
// answers from its own threads meanwhile).
template <typename T, typename Call>
Result<T> awaitResult(Call call, int timeoutMs = 10'000) {
    std::optional<Result<T>> result;
    call([&result](Result<T> value) { result.emplace(std::move(value)); });
    QDeadlineTimer deadline(timeoutMs);
    while (!result && !deadline.hasExpired()) {
        QTest::qWait(5);
    }
    if (!result) {
        return Failure::other(QStringLiteral("no completion within %1 ms").arg(timeoutMs));
    }
    return *std::move(result);
}
