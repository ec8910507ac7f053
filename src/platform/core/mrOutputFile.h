#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// An output that appears whole or not at all. The bytes go to a temporary file first, and
// only once all of them are written are they put where the path leads:
// - nothing or a regular file there: the temporary file, made beside it, is renamed over
//   it, so a failed or abandoned write leaves an earlier file untouched;
// - a symbolic link: it is followed and the file it leads to is replaced the same way
//   (the link stays a link), also when that file does not exist yet;
// - a character or block device or a named pipe: the finished bytes are written through
//   into it, so a device node is never replaced (its temporary file goes to $TMPDIR);
// - a directory, a socket or any other kind of file: refused.
// A caller may also send the bytes into a descriptor it holds (standard output), written
// through the same way once they are complete.
class mrOutputFile
{
public:
    enum e_kind
    {
        KIND_FILE,      // renamed into place
        KIND_STREAM,    // a device or a named pipe, opened and written through
        KIND_DESCRIPTOR // a descriptor the caller holds, written through
    };

    // Where a path leads.
    struct Target
    {
        e_kind kind = KIND_FILE;
        std::string path;         // the file to replace or create, or the device to write into
        bool exists = false;      // a regular file is there now
        unsigned mode = 0;        // its permission bits
        unsigned long device = 0; // the file's identity, when it exists
        unsigned long inode = 0;
    };

    mrOutputFile() = default;
    ~mrOutputFile();
    mrOutputFile(const mrOutputFile&) = delete;
    mrOutputFile& operator=(const mrOutputFile&) = delete;

    // Where `path` leads, or false with the reason ("is a directory, not a file name", ...).
    static bool resolve(const std::string& path, Target& target, std::string& error);
    // resolve(), and for a file also that its directory exists and can be written into;
    // creates nothing.
    static bool check(const std::string& path, std::string& error);
    // Writes `size` bytes to `path` in one go; false with "PATH: what is wrong".
    static bool writeFile(const std::string& path, const void* data, size_t size, std::string& error);

    // Creates the temporary file and opens it for binary writing.
    bool open(const std::string& path, std::string& error);
    // The same for bytes meant for the descriptor `fd` (kept open; `name` names it in messages).
    bool openDescriptor(int fd, const std::string& name, std::string& error);
    FILE* file() { return m_file; }
    e_kind kind() const { return m_kind; }
    const std::string& path() const { return m_path; }
    // Appends bytes; the reason (errno text) on failure.
    bool write(const void* data, size_t size, std::string& error);
    // Flushes and closes the temporary file and checks the path again: after this the
    // bytes are complete and install() only has to put them in place.
    bool finish(std::string& error);
    // Renames the finished file into place or writes it through.
    bool install(std::string& error);
    // finish() then install(); on failure nothing is left behind.
    bool commit(std::string& error);
    // Removes the temporary file; the target is not touched.
    void abandon();

private:
    bool openTemp(const std::string& pattern, bool beside, std::string& error);
    bool closeTemp(std::string& error);

    std::string m_path;   // as given
    std::string m_target; // where the bytes go: the path with symbolic links followed
    std::string m_temp;
    std::string m_error; // why the first write failed
    e_kind m_kind = KIND_FILE;
    int m_fd = -1; // KIND_DESCRIPTOR: the caller's descriptor
    bool m_exists = false;
    unsigned m_mode = 0;
    FILE* m_file = nullptr;
    bool m_failed = false;
    bool m_finished = false;
};
