#pragma once

#include <QString>

#include <optional>

class QWidget;

// Turns the resume file the user picks or drops into the plain text that is stored and sent with every
// answer. A PDF yields its text trimmed at both ends; any other file must be UTF-8 and is kept exactly.
namespace ResumeImporter {

// Runs the file dialog modally over `parent`; the chosen file, or empty when the user cancelled.
QString pickFile(QWidget* parent);

// The resume text of the file at `path`, or nothing when it cannot be read. Touches no shared state, so
// any thread may call it.
std::optional<QString> text(const QString& path);

}  // namespace ResumeImporter
