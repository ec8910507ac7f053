// The engine stand-ins where the library relies on their behaviour: parameter blocks and
// their notifications, the output stream, safe output files, progress and the core object.
// (The class registry, the mesh model and the assertion routine are exercised by every suite.)
#include <cstring>
#include <filesystem>
#include <iostream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrOutputFile.h>
#include <meridbsp/platform/core/mrParamBlock.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;

struct Listener : mrRefMaker
{
    std::vector<std::pair<int, unsigned long>> heard;
    e_refResult notifyRefChanged(e_refMsg message, unsigned long partID, mrRefTarget*, unsigned long, int) override
    {
        heard.push_back({(int)message, partID});
        return REF_SUCCEED;
    }
};

TEST(ParamBlock, FieldsByIdAndNameNotifyDependantsWrongKindsAndMissingFieldsReadEmpty)
{
    mrParamBlock block;
    Listener listener;
    block.makeReference(&listener);
    block.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Count");
    block.addVector3Field(0xF002, mrParamBlock::ACCESS_READWRITE, "Where");
    block.addByteArrayPtrField(0xF003, mrParamBlock::ACCESS_READWRITE, "Bytes");
    block.setDWordField(0xF001, 42);
    block.setVector3Field(0xF002, V(1, 2, 3));
    unsigned char bytes[5] = {1, 2, 3, 4, 5};
    block.setByteArrayPtrField(0xF003, bytes, 5);
    block.setDWordField(0xF00F, 1);            // undeclared: ignored, no notification
    block.setVector3Field(0xF001, V(1, 1, 1)); // kind mismatch: ignored, no notification

    ASSERT_NE(block.findField("Where"), nullptr);
    EXPECT_EQ(
        std::make_tuple(block.getDWordField(0xF001), block.getVector3Field(0xF002), block.findField("Where")->m_id,
                        listener.heard, block.getVector3Field(0xF001), block.getDWordField(0xF00F)),
        std::make_tuple(42ul, V(1, 2, 3), 0xF002ul,
                        std::vector<std::pair<int, unsigned long>>{{0, 0xF001}, {0, 0xF002}, {0, 0xF003}}, V(), 0ul));
    unsigned long size = 0, wrongSize = 99;
    EXPECT_EQ(block.getByteArrayPtrField(0xF003, size), bytes); // the address, not a copy
    EXPECT_EQ(block.getByteArrayField(0xF001, wrongSize), nullptr);
    EXPECT_EQ(std::make_pair(size, wrongSize), std::make_pair(5ul, 0ul));

    // A copy keeps the fields but not the dependants.
    mrParamBlock copy(block);
    copy.setDWordField(0xF001, 7);
    EXPECT_EQ(std::make_tuple(listener.heard.size(), copy.getDWordField(0xF001), block.getDWordField(0xF001)),
              std::make_tuple((size_t)3, 7ul, 42ul));
}

TEST(Output, GoesToStandardErrorByDefaultAndPrintfAndStreamGoToTheCapturedTarget)
{
    // Standard output is the program's own: the library log stays off it unless asked.
    EXPECT_EQ(srGetOutputTarget(), &std::cerr);
    std::ostream* previous = srSetOutputTarget(nullptr);
    EXPECT_EQ(srGetOutputTarget(), &std::cerr);
    srSetOutputTarget(previous);
    mtest::LogCapture log;
    srPrintf("Generated %i planes\n", 6);
    srOut << "line two" << '\n';
    EXPECT_EQ(log.text(), "Generated 6 planes\nline two\n");
    srPrintf("%s\n", std::string(2000, 'x').c_str());
    EXPECT_EQ(log.lines().back().size(), 2000u);
}

// Never a path under /dev: a writer that renamed over its output would replace the
// machine's device node. Pipes, links and sockets are made in a temporary directory.
TEST(OutputFile, ReplacesFilesFollowsLinksAndRefusesTheRest)
{
    mtest::TempDir dir;
    std::string error;
    auto write = [&](const std::string& name, const std::string& bytes)
    {
        error.clear();
        return mrOutputFile::writeFile(dir.file(name), bytes.data(), bytes.size(), error);
    };

    // A file is replaced and keeps its permissions; a link stays a link, the file behind
    // it (there or not yet) is written. (Pipes: tests/robustness_test.cpp.)
    mtest::writeFile(dir.file("old"), "old");
    ::chmod(dir.file("old").c_str(), 0640);
    ASSERT_TRUE(write("old", "new")) << error;
    EXPECT_EQ(mtest::readFile(dir.file("old")), "new");
    struct stat st;
    ASSERT_EQ(::stat(dir.file("old").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    std::filesystem::create_symlink("old", dir.file("link"));
    std::filesystem::create_symlink("later", dir.file("dangling"));
    ASSERT_TRUE(write("link", "via link") && write("dangling", "made")) << error;
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link")));
    EXPECT_EQ(std::make_pair(mtest::readFile(dir.file("old")), mtest::readFile(dir.file("later"))),
              std::make_pair(std::string("via link"), std::string("made")));

    // A descriptor the caller holds, written through once the bytes are complete.
    int fds[2];
    char buf[8] = {};
    ASSERT_EQ(::pipe(fds), 0);
    mrOutputFile out;
    ASSERT_TRUE(out.openDescriptor(fds[1], "-", error)) << error;
    ASSERT_TRUE(out.write("abc", 3, error) && out.commit(error)) << error;
    ::close(fds[1]);
    EXPECT_EQ(::read(fds[0], buf, sizeof buf), 3);
    ::close(fds[0]);

    // Refused: a directory, a socket, a loop of links; a missing directory fails on the
    // temporary file, and check() says so before anything is made.
    std::filesystem::create_directory(dir.file("sub"));
    int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(dir.file("sock").size(), sizeof addr.sun_path);
    std::strcpy(addr.sun_path, dir.file("sock").c_str());
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    std::filesystem::create_symlink("loop2", dir.file("loop1"));
    std::filesystem::create_symlink("loop1", dir.file("loop2"));
    const std::pair<const char*, const char*> refused[] = {
        {"sub", "is a directory, not a file name"},
        {"sub/", "is a directory, not a file name"},
        {"sock", "is a socket, not a file"},
        {"loop1", "cannot follow the symbolic link: Too many levels of symbolic links"},
        {"missing/x", "cannot create a temporary file beside it: No such file or directory"},
    };
    for (const auto& r : refused)
    {
        EXPECT_FALSE(write(r.first, "x")) << r.first;
        EXPECT_EQ(error, dir.file(r.first) + ": " + r.second);
    }
    ::close(sock);
    EXPECT_FALSE(mrOutputFile::check(dir.file("missing/x"), error));
    EXPECT_EQ(error, "cannot write into directory " + dir.file("missing") + ": No such file or directory");
    EXPECT_TRUE(mrOutputFile::check(dir.file("old"), error));

    // Abandoned half-way: the earlier file stays, and no temporary file is left.
    {
        mrOutputFile half;
        ASSERT_TRUE(half.open(dir.file("old"), error) && half.write("partial", 7, error)) << error;
    }
    EXPECT_EQ(mtest::readFile(dir.file("old")), "via link");
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
}

TEST(Progress, StagesReportStartRisingWorkAndEndAndNobodyListensOutsideThem)
{
    std::vector<std::string> heard;
    auto record = [&](const char* stage, uint64_t done, uint64_t total)
    { heard.push_back(std::string(stage) + " " + std::to_string(done) + "/" + std::to_string(total)); };
    mrProgress::reach(5); // no stage: nothing happens
    {
        // The callback may be a temporary; a million steps give about a thousand reports.
        mrProgress::Stage stage(mrProgress::Callback(record), "known", 1000000);
        for (int i = 0; i < 1000000; ++i)
            mrProgress::step();
        mrProgress::reach(2000000); // held at the total
        {
            mrProgress::Stage hidden(mrProgress::Callback(), "unheard", 10);
            mrProgress::reach(3); // belongs to the unheard stage, not the outer one
        }
    }
    ASSERT_GE(heard.size(), 900u);
    EXPECT_LE(heard.size(), 1002u);
    EXPECT_EQ(std::make_pair(heard.front(), heard.back()),
              std::make_pair(std::string("known 0/1000000"), std::string("known 1000000/1000000")));

    heard.clear();
    {
        mrProgress::Stage stage(record, "unknown", 0);
        for (uint64_t n : {1, 2, 3, 500, 502, 1000})
            mrProgress::reach(n);
    }
    EXPECT_EQ(heard, (std::vector<std::string>{"unknown 0/0", "unknown 1/0", "unknown 2/0", "unknown 3/0",
                                               "unknown 500/0", "unknown 1000/0", "unknown 1000/1000"}));
}

TEST(Core, UninitialisedCoreReportsAndGivesNoManager)
{
    mtest::AssertRecorder rec;
    mrCore::shutdown();
    EXPECT_EQ(mrCore::instance().getIOManager(), nullptr);
    mrCore::initialize();
    EXPECT_NE(mrCore::instance().getIOManager(), nullptr);
    rec.expect({{"m_initialized", "mrCore", 22, "mrCore::getIOManager()- mrCore uninitialized!"}});
    mrCore::shutdown();
}

} // namespace
