#pragma once

#include <QString>

namespace Brevane::Kvo {

struct ProcessedSource;

// What compilers say of shaders, for people to read.

/// "vertex", "fragment" and so on, of a stage's GL name.
const char *stageName(int stage);
/// What the compiler has said of a shader, and the linker of a program.
QString shaderLog(unsigned int shader);
QString programLog(unsigned int program);
/// A message with the names of the source strings, where they have one, and the lines in them.
QString withNames(const QString &message, const ProcessedSource &source);
/// The texts that a message speaks of, and the main one, with numbers and marks at the lines of the message. \a title
/// names the main one.
QString sourcesBehind(const QString &message, const ProcessedSource &source, const QString &title);
/// The main text with numbers.
QString numberedSource(const ProcessedSource &source);

} // namespace Brevane::Kvo
