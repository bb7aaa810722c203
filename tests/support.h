// Helpers the tests share: a scratch folder and a log they can read back.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "core/core.h"

namespace orv::test {

namespace fs = std::filesystem;

class TempDir {
  public:
    TempDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = fs::temp_directory_path() / (std::string("orv-") + (info ? info->test_suite_name() : "x") +
                                             "-" + (info ? info->name() : "y") + "-" +
                                             std::to_string(::getpid()) + "-" + std::to_string(counter()++));
        fs::remove_all(path_);
        fs::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

  private:
    static int& counter() {
        static int n = 0;
        return n;
    }
    fs::path path_;
};

inline void writeBytes(const fs::path& p, const std::string& bytes) {
    std::ofstream o(p, std::ios::binary);
    o << bytes;
}

inline std::string readBytes(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// A copy of one of the encrypted reference files the build made beside the program. Tests read
// copies so that no plain file ever appears in the build's own folder while others copy from it.
inline fs::path shippedCopy(const std::string& name, const fs::path& into) {
    const auto target = into / name;
    fs::copy_file(fs::path(ORV_PROGRAM).parent_path() / "input" / name, target,
                  fs::copy_options::overwrite_existing);
    return target;
}

// Polls `done` until it holds or `limit` has passed (real time: the tests watch other threads).
inline bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
                      std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(step);
    }
    return done();
}

// Opens Log.txt in a scratch folder for the test's lifetime.
class LogCapture {
  public:
    LogCapture() { core::openLog(dir_ / "Log.txt"); }
    ~LogCapture() { core::closeLog(); }
    std::string text() {
        core::logFlush("(read by test)");
        return readBytes(dir_ / "Log.txt");
    }
    bool contains(const std::string& s) { return text().find(s) != std::string::npos; }
    std::string unflushedText() const { return readBytes(dir_ / "Log.txt"); } // what a kill would leave
    std::size_t count(const std::string& s) {
        const std::string t = text();
        std::size_t n = 0;
        for (auto at = t.find(s); at != std::string::npos; at = t.find(s, at + s.size())) ++n;
        return n;
    }

  private:
    TempDir dir_;
};

} // namespace orv::test
