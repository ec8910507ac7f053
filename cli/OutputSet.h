#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "AtomicFile.h"

// The outputs of one run, put in place together: each is written to its temporary file,
// and none is renamed or written through until every one of them is complete. A set
// dropped before commit() removes its temporary files and touches no output, and removes
// again the directories it made for them.
class OutputSet
{
public:
    OutputSet() = default;
    ~OutputSet();
    OutputSet(const OutputSet&) = delete;
    OutputSet& operator=(const OutputSet&) = delete;

    // How many of the (non-empty) paths go to standard output.
    static int countStdout(const std::vector<std::string>& paths);

    // A new output of the set; null with "PATH: what is wrong".
    AtomicFile* open(const std::string& path, std::string& error);
    // An output written in one piece.
    bool writeFile(const std::string& path, const void* data, size_t size, std::string& error);
    // Finishes every output, then puts each in place; "PATH: what is wrong" on failure.
    bool commit(std::string& error);

    // Makes the directory and any parents missing, to be removed again unless the outputs
    // are committed; false with "DIR: cannot create the directory: why".
    bool makeDirectory(const std::string& dir, std::string& error);

private:
    std::vector<std::unique_ptr<AtomicFile>> m_files;
    std::vector<std::string> m_madeDirectories; // parents first
    bool m_committed = false;
};
