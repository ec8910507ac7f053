#pragma once

#include <cstdio>
#include <string>

// An output file that appears whole or not at all: the bytes go to a temporary file in
// the target's directory, which is renamed over the target only once everything has
// been written. A failed or abandoned write leaves any earlier file untouched.
//
// Input files are registered with protectInput(); an output whose path resolves to a
// registered input is refused, so a run never replaces the file it reads.
class AtomicFile
{
public:
    AtomicFile() = default;
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Checks that `path` can become an output (its directory exists and is writable, it
    // is not a directory, it is not a protected input) without creating anything.
    static bool checkTarget(const std::string& path, std::string& error);
    static void protectInput(const std::string& path);

    // Creates the temporary file beside `path` and opens it for binary writing.
    bool open(const std::string& path, std::string& error);
    FILE* file() { return m_file; }
    const std::string& tempPath() const { return m_temp; }
    const std::string& path() const { return m_path; }
    // Closes the temporary file (if still open) so that another writer can fill it by name.
    bool closeTemp(std::string& error);
    // Flushes, closes and renames into place; false (temporary removed) on any failure.
    bool commit(std::string& error);
    // Removes the temporary file; the target is not touched.
    void abandon();

private:
    std::string m_path;
    std::string m_temp;
    FILE* m_file = nullptr;
    bool m_failed = false;
};
