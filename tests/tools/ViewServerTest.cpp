// mvlog view's server: what it answers, and what it refuses.

#include "ToolTestSupport.h"
#include "view/ViewServer.h"

#include <TempDir.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <string>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;
using Mvlog::ViewOptions;
using Mvlog::ViewServer;

class ViewServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeKnownFile(path);
        ViewOptions options;
        options.files = {path};
        options.token = "secret-token";
        server = std::make_unique<ViewServer>(options);
        server->start();
    }

    httplib::Result get(const std::string& target, const std::string& host = "") {
        httplib::Client client("127.0.0.1", server->port());
        httplib::Headers headers;
        headers.emplace("Host", host.empty() ? "127.0.0.1:" + std::to_string(server->port()) : host);
        return client.Get(target.c_str(), headers);
    }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::unique_ptr<ViewServer> server;
};

TEST_F(ViewServerTest, ServesThePageAndTheFilesWithTheToken) {
    const auto page = get("/?token=secret-token");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("<title>mvlog view</title>"), std::string::npos);
    const auto files = get("/api/files?token=secret-token");
    ASSERT_TRUE(files);
    ASSERT_EQ(files->status, 200);
    const auto list = nlohmann::json::parse(files->body);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["name"], "known.mvlog");
    EXPECT_EQ(list[0]["entries"], 101);
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + std::to_string(server->port()) + "/?token=secret-token");
}

TEST_F(ViewServerTest, RefusesRequestsWithoutTheTokenOrFromAnotherHost) {
    for (const std::string target : {"/", "/api/files", "/?token=secret-tokeN", "/api/files?token="}) {
        const auto result = get(target);
        ASSERT_TRUE(result) << target;
        EXPECT_EQ(result->status, 403) << target;
        EXPECT_EQ(result->body.find("known.mvlog"), std::string::npos);
    }
    const auto rebound =
        get("/api/files?token=secret-token", "attacker.example:" + std::to_string(server->port()));
    ASSERT_TRUE(rebound);
    EXPECT_EQ(rebound->status, 403);
    const auto localhost =
        get("/api/files?token=secret-token", "localhost:" + std::to_string(server->port()));
    ASSERT_TRUE(localhost);
    EXPECT_EQ(localhost->status, 200);
}

TEST_F(ViewServerTest, FilesAreAddressedByTheirPlaceNeverByPath) {
    for (const std::string target : {"/api/files/1/summary", "/api/files/..%2Fknown.mvlog/summary",
                                     "/api/files/%2Fetc%2Fpasswd/summary", "/etc/passwd"}) {
        const auto result = get(target + "?token=secret-token");
        ASSERT_TRUE(result) << target;
        EXPECT_EQ(result->status, 404) << target;
    }
}

TEST_F(ViewServerTest, BinsCountEveryEntryOnceAndAreBounded) {
    const auto summary = get("/api/files/0/summary?token=secret-token");
    ASSERT_TRUE(summary);
    ASSERT_EQ(summary->status, 200);
    const auto file = nlohmann::json::parse(summary->body);
    const std::string window = "from=" + std::to_string(file["first"].get<int64_t>()) +
                               "&to=" + std::to_string(file["last"].get<int64_t>());
    const auto bins = get("/api/files/0/bins?token=secret-token&" + window + "&bins=7");
    ASSERT_TRUE(bins);
    ASSERT_EQ(bins->status, 200);
    int total = 0;
    for (const auto& [source, counts] : nlohmann::json::parse(bins->body)["lanes"].items()) {
        EXPECT_EQ(counts.size(), 7u) << source;
        for (const auto& count : counts) {
            total += count.get<int>();
        }
    }
    EXPECT_EQ(total, 101);
    for (const std::string bad : {"&bins=0", "&bins=10001", "&bins=x", ""}) {
        const auto refused = get("/api/files/0/bins?token=secret-token&" + window + bad);
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, 400) << bad;
    }
}

}  // namespace
}  // namespace MvlogTest
