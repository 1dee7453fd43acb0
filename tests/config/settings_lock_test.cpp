// The settings-file lock and open: never through a symbolic link, never a FIFO or other
// non-regular file, and the mutex is free again after a refused open.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "config/global_settings.h"

namespace {

class SettingsLockTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tavrine-lock-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0); }
    std::string Path(const char* name) const { return dir_ + "/" + name; }

    // The mutex is free exactly when trylock succeeds.
    static bool MutexIsFree(pthread_mutex_t* mutex) {
        if (pthread_mutex_trylock(mutex) != 0) return false;
        pthread_mutex_unlock(mutex);
        return true;
    }

    std::string dir_;
};

TEST_F(SettingsLockTest, RegularFileOpensAndHoldsTheLockUntilClosed) {
    FILE* f = LockAndOpenFile(Path("a.ini").c_str(), "w+", &SettingsFileMutex);
    ASSERT_NE(f, nullptr);
    EXPECT_FALSE(MutexIsFree(&SettingsFileMutex));
    EXPECT_EQ(fputs("[TavrineA.ini]", f), 1);
    CloseAndUnlockFile(f, &SettingsFileMutex);
    EXPECT_TRUE(MutexIsFree(&SettingsFileMutex));
    FILE* r = LockAndOpenFile(Path("a.ini").c_str(), "r", &SettingsFileMutex);
    ASSERT_NE(r, nullptr);
    char word[32] = "";
    EXPECT_EQ(fscanf(r, "%31s", word), 1);
    EXPECT_STREQ(word, "[TavrineA.ini]");
    CloseAndUnlockFile(r, &SettingsFileMutex);
}

TEST_F(SettingsLockTest, SymlinkAndFifoAreRefusedAndTheLockReleased) {
    // A link pointing at a file elsewhere must neither be followed for writing nor read.
    const std::string victim = Path("victim");
    FILE* v = fopen(victim.c_str(), "w");
    ASSERT_NE(v, nullptr);
    fputs("keep me", v);
    fclose(v);
    ASSERT_EQ(symlink(victim.c_str(), Path("link.ini").c_str()), 0);
    EXPECT_EQ(LockAndOpenFile(Path("link.ini").c_str(), "w+", &SettingsFileMutex), nullptr);
    EXPECT_TRUE(MutexIsFree(&SettingsFileMutex));
    EXPECT_EQ(LockAndOpenFile(Path("link.ini").c_str(), "r", &SettingsFileMutex), nullptr);
    struct stat st;
    ASSERT_EQ(stat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 7);  // not truncated through the link

    // A FIFO with no writer would block a plain open for reading: refused at once.
    ASSERT_EQ(mkfifo(Path("fifo.ini").c_str(), 0600), 0);
    EXPECT_EQ(LockAndOpenFile(Path("fifo.ini").c_str(), "r", &SettingsFileMutex), nullptr);
    EXPECT_EQ(LockAndOpenFile(Path("fifo.ini").c_str(), "w+", &TempFileMutex), nullptr);
    EXPECT_TRUE(MutexIsFree(&SettingsFileMutex));
    EXPECT_TRUE(MutexIsFree(&TempFileMutex));

    // A missing file opened for reading fails and releases the lock too.
    EXPECT_EQ(LockAndOpenFile(Path("missing.ini").c_str(), "r", &SettingsFileMutex), nullptr);
    EXPECT_TRUE(MutexIsFree(&SettingsFileMutex));
}

}  // namespace
