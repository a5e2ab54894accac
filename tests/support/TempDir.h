#pragma once

#include <gtest/gtest.h>

#include <unistd.h>
#include <atomic>
#include <filesystem>
#include <string>
#include <system_error>

namespace Marivane::Testing {

// A fresh directory per test, removed afterwards.
class TempDir {
public:
    TempDir() {
        static std::atomic<unsigned> counter{0};
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "test";
        for (char& c : name) {
            if (c == '/') {
                c = '_';
            }
        }
        path_ = std::filesystem::temp_directory_path() /
                ("mvlog-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" + name);
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

}  // namespace Marivane::Testing
