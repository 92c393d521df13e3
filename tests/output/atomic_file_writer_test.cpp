// The hot file, the commit and the failures of AtomicFileWriter.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "output/atomic_file_writer.h"
#include "foundation/platform_error.h"
#include "support/temp_directory.h"

namespace ov::testing {
namespace {

namespace fs = std::filesystem;
using platform::ErrorDescription;

// The domain, code and texts of what a call throws, whatever its type.
template <class F>
ErrorDescription errorOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return platform::describeError(e);
    }
    ADD_FAILURE() << "expected an error";
    return {};
}

TEST(AtomicFileWriterTest, DerivesItsFileNamesFromTheTarget) {
    TempDirectory dir;
    AtomicFileWriter json(dir / "foo.json");
    EXPECT_EQ(json.hotFile(), dir / "foo.json~");
    EXPECT_EQ(json.intermediateFile(), dir / "foo.tmp");
    EXPECT_EQ(json.targetFile(), dir / "foo.json");
    EXPECT_EQ(json.backupFileName(), "foo.json.bak");
    EXPECT_TRUE(fs::exists(dir / "foo.json~")) << "the hot file exists from construction";
    EXPECT_FALSE(fs::exists(dir / "foo.json")) << "no target before the first commit";

    EXPECT_EQ(AtomicFileWriter::intermediateFileFor(dir / "orvane.log"), dir / "orvane.tmp");
    EXPECT_EQ(AtomicFileWriter::hotFileFor(dir / "orvane.log"), dir / "orvane.log~");
    EXPECT_EQ(AtomicFileWriter::intermediateFileFor(dir / "plain"), dir / "plain.tmp");
}

TEST(AtomicFileWriterTest, RefusesToStartOverAnyFileItWouldUse) {
    TempDirectory dir;
    const auto target = dir / "events.json";
    // All three present: the hot file is named first, then the intermediate, then the target.
    writeFile(dir / "events.json~", "stale hot");
    writeFile(dir / "events.tmp", "stale intermediate");
    writeFile(target, "old target");
    for (const auto& expected : {dir / "events.json~", dir / "events.tmp", target}) {
        auto e = errorOf([&] { AtomicFileWriter w(target); });
        EXPECT_EQ(e.domain, "Orvane.OVError");
        EXPECT_EQ(e.code, -1706) << "fileOperationFailed";
        EXPECT_EQ(e.debugDescription, "File already exists at " + expected.string());
        fs::remove(expected);
    }
    EXPECT_FALSE(fs::exists(dir / "events.json~")) << "a refused writer creates nothing";

    AtomicFileWriter ok(target);  // nothing left in the way
}

TEST(AtomicFileWriterTest, FailsWhenTheHotFileCannotBeCreated) {
    TempDirectory dir;
    const auto target = dir / "missing-dir" / "a.json";
    auto e = errorOf([&] { AtomicFileWriter w(target); });
    EXPECT_EQ(e.code, -1706);
    EXPECT_EQ(e.debugDescription, "Unable to create file " + (dir / "missing-dir" / "a.json~").string());
}

TEST(AtomicFileWriterTest, EachCommitPublishesTheHotFileAsItIsThen) {
    TempDirectory dir;
    AtomicFileWriter w(dir / "log.txt");
    w.fileHandle().write("first\n");
    EXPECT_FALSE(fs::exists(dir / "log.txt")) << "writing alone publishes nothing";
    w.synchronize();
    EXPECT_EQ(readFile(dir / "log.txt"), "first\n");
    EXPECT_FALSE(fs::exists(dir / "log.tmp")) << "the intermediate file is gone after a commit";

    w.fileHandle().write("second\n");
    EXPECT_EQ(readFile(dir / "log.txt"), "first\n");
    w.synchronize();
    EXPECT_EQ(readFile(dir / "log.txt"), "first\nsecond\n");

    w.truncate(3);
    EXPECT_EQ(w.fileHandle().offsetInFile(), 3u) << "truncation moves the write position";
    w.fileHandle().write("!");
    w.synchronize();
    EXPECT_EQ(readFile(dir / "log.txt"), "fir!");
    EXPECT_EQ(readFile(dir / "log.txt~"), "fir!");
}

TEST(AtomicFileWriterTest, CloseCommitsRemovesTheHotFileAndEndsWriting) {
    TempDirectory dir;
    AtomicFileWriter w(dir / "a.json");
    w.fileHandle().write("[]");
    w.close();
    EXPECT_EQ(readFile(dir / "a.json"), "[]");
    EXPECT_FALSE(fs::exists(dir / "a.json~"));
    EXPECT_FALSE(fs::exists(dir / "a.tmp"));

    EXPECT_EQ(errorOf([&] { w.fileHandle().write("more"); }).code, EBADF);
    EXPECT_EQ(errorOf([&] { w.synchronize(); }).code, EBADF);
    EXPECT_EQ(errorOf([&] { w.close(); }).code, EBADF);
    EXPECT_EQ(readFile(dir / "a.json"), "[]");
}

TEST(AtomicFileWriterTest, AFailedCommitKeepsTheOldTargetAndCanBeRetried) {
    TempDirectory dir;
    const auto target = dir / "t.json";
    AtomicFileWriter w(target);
    w.fileHandle().write("v1");
    w.synchronize();

    // A non-empty directory in the target's place makes the rename fail.
    fs::remove(target);
    fs::create_directory(target);
    writeFile(target / "blocker", "x");
    w.fileHandle().write("v2");
    EXPECT_EQ(errorOf([&] { w.synchronize(); }).domain, "NSPOSIXErrorDomain");
    EXPECT_FALSE(fs::exists(dir / "t.tmp")) << "a stale intermediate would block every later commit";
    EXPECT_EQ(readFile(target / "blocker"), "x");

    // close() fails the same way and leaves the hot file for whoever looks.
    EXPECT_ANY_THROW(w.close());
    EXPECT_EQ(readFile(dir / "t.json~"), "v1v2");

    fs::remove_all(target);
    w.synchronize();
    EXPECT_EQ(readFile(target), "v1v2");
    w.close();
    EXPECT_FALSE(fs::exists(dir / "t.json~"));
}

}  // namespace
}  // namespace ov::testing
