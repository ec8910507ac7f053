#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include <meridbsp/platform/core/mrOutputFile.h>

// One output of the tool, whole or not at all: the library's mrOutputFile (a file is
// replaced by renaming, a link followed, a device or named pipe written through, a
// directory or socket refused) plus what only the tool knows of:
// - "-" and any path that is this process's standard output are written through into
//   standard output;
// - input files are registered with protectInput(), and an output whose path resolves to
//   a registered input is refused, so a run never replaces the file it reads.
class AtomicFile
{
public:
    enum e_kind
    {
        KIND_FILE,   // renamed into place
        KIND_STREAM, // a device or a named pipe, written through
        KIND_STDOUT  // standard output ("-", /dev/stdout, ...)
    };

    // Checks that `path` can become an output without creating anything (for a file: its
    // directory exists and is writable, it is not a protected input).
    static bool checkTarget(const std::string& path, std::string& error);
    // True when `path` is "-" or the file, pipe or terminal standard output writes to.
    static bool isStdout(const std::string& path);
    static void protectInput(const std::string& path);

    // Creates the temporary file and opens it for binary writing.
    bool open(const std::string& path, std::string& error);
    FILE* file() { return m_out.file(); }
    e_kind kind() const { return m_kind; }
    const std::string& path() const { return m_path; }
    bool write(const void* data, size_t size, std::string& error) { return m_out.write(data, size, error); }
    // The bytes complete and the path checked again; install() then only puts them in place.
    bool finish(std::string& error) { return m_out.finish(error); }
    bool install(std::string& error);
    bool commit(std::string& error) { return finish(error) && install(error); }
    void abandon() { m_out.abandon(); }

private:
    mrOutputFile m_out;
    std::string m_path;
    e_kind m_kind = KIND_FILE;
};
