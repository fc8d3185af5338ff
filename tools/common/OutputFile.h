// Output files of the tools (the dump, the final state): checked when the tool starts, so a
// path that cannot be written is reported before the run instead of after it, and "-" for
// standard output.
#pragma once

#include <string>

namespace tools {

// Throws std::runtime_error "cannot write PATH: <the system's reason>" unless `path` can be
// opened for writing (it is created if missing and left as it is otherwise). "-" passes.
void CheckWritable(const std::string& path);

// Replaces the content of `path` with `text`, or writes it to standard output for "-".
// Throws std::runtime_error with the system's reason when the file cannot be written whole.
void WriteText(const std::string& path, const std::string& text);

}  // namespace tools
