#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// An output that appears whole or not at all. The bytes go to a temporary file first;
// only once everything has been written are they put where the path leads:
// - nothing or a regular file there: the temporary file (beside it) is renamed over it,
//   so a failed or abandoned write leaves any earlier file untouched;
// - a symbolic link: it is followed, and the file it leads to is replaced the same way
//   (the link stays a link);
// - a character or block device, a named pipe, "-" or any path that is this process's
//   standard output: the finished bytes are written through into it (a device node is
//   never replaced);
// - anything else (a directory, a socket): refused.
//
// Input files are registered with protectInput(); an output whose path resolves to a
// registered input is refused, so a run never replaces the file it reads.
class AtomicFile
{
public:
    enum e_kind
    {
        KIND_FILE,   // renamed into place
        KIND_STREAM, // a device or a named pipe, written through
        KIND_STDOUT  // standard output ("-", /dev/stdout, ...)
    };

    AtomicFile() = default;
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Checks that `path` can become an output (see above; for a file: its directory
    // exists and is writable, it is not a protected input) without creating anything.
    static bool checkTarget(const std::string& path, std::string& error);
    // True when `path` is "-" or the file, pipe or terminal standard output writes to.
    static bool isStdout(const std::string& path);
    static void protectInput(const std::string& path);

    // Creates the temporary file (beside the target file; for a device, pipe or standard
    // output in the temporary directory) and opens it for binary writing.
    bool open(const std::string& path, std::string& error);
    FILE* file() { return m_file; }
    e_kind kind() const { return m_kind; }
    const std::string& path() const { return m_path; }
    // Appends bytes to the temporary file; the reason (errno text) on failure.
    bool write(const void* data, size_t size, std::string& error);
    // Flushes and closes the temporary file and checks the target again: after this the
    // bytes are complete and install() only has to put them in place.
    bool finish(std::string& error);
    // Renames the finished file into place or writes it through into the device.
    bool install(std::string& error);
    // finish() then install(); false (temporary removed) on any failure.
    bool commit(std::string& error);
    // Removes the temporary file; the target is not touched.
    void abandon();

private:
    bool closeTemp(std::string& error);

    std::string m_path;   // as given
    std::string m_target; // where the bytes go: the path with symbolic links followed
    std::string m_temp;
    std::string m_error; // why the first write failed
    e_kind m_kind = KIND_FILE;
    FILE* m_file = nullptr;
    bool m_failed = false;
    bool m_finished = false;
};
