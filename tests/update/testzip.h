#pragma once

#include <QByteArray>

// A zip archive of comma-separated entries, written as the extraction test lists what it finds: "name" or
// "name mode" for a file holding `contents`, "name/ mode" for a folder, "name -> target" for a link; modes in
// octal, none stored when absent. Names go in as they are, so "../x" and "/abs" can be made.
QByteArray makeZip(const QByteArray& entries, const QByteArray& contents = "data");
