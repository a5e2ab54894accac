// mvlog view's server over HTTP, as the page uses it: who it admits, what it
// refuses, and the exact answers about files written here with the library.
#include "ToolTestSupport.h"
#include "view/ViewServer.h"

#include <logging/Bookmark.h>
#include <logging/Durability.h>
#include <logging/PayloadEncoding.h>
#include <logging/SqliteLogFile.h>

#include <TempDir.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace MvlogTest {
namespace {

using Json = nlohmann::json;
using Marivane::Logging::Bookmark;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::Durability;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntrySummary;
using Marivane::Logging::PayloadEncoding;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;
using Mvlog::ViewLoad;
using Mvlog::ViewOptions;
using Mvlog::ViewServer;

constexpr const char* kToken = "secret-token";
// The start of the files written here other than the known file.
constexpr int64_t kStart = 1'710'000'000'000;

// One answer of the server, or status -1 when the request failed.
struct Answer {
    int status = -1;
    std::string body;
    httplib::Headers headers;

    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
    bool hasHeader(const std::string& name) const { return headers.find(name) != headers.end(); }
};

// A `method` request for `target` to the server on 127.0.0.1:`port`, with
// `headers` (and a Host header naming 127.0.0.1 and the port unless they
// hold one). The target is sent as written: its percent escapes reach the
// server as they are.
Answer fetch(int port, const std::string& target, httplib::Headers headers = {},
             const std::string& method = "GET") {
    httplib::Client client("127.0.0.1", port);
    client.set_url_encode(false);
    client.set_connection_timeout(10);
    client.set_read_timeout(60);
    if (headers.find("Host") == headers.end()) {
        headers.emplace("Host", "127.0.0.1:" + std::to_string(port));
    }
    httplib::Result result = method == "POST"     ? client.Post(target, headers, std::string(), "text/plain")
                             : method == "PUT"    ? client.Put(target, headers, std::string(), "text/plain")
                             : method == "DELETE" ? client.Delete(target, headers)
                                                  : client.Get(target, headers);
    Answer answer;
    if (!result) {
        return answer;
    }
    answer.status = result->status;
    answer.body = result->body;
    answer.headers = result->headers;
    return answer;
}

// `target` with the token added to its query.
std::string withToken(const std::string& target) {
    return target + (target.find('?') == std::string::npos ? "?" : "&") + "token=" + kToken;
}

// The address of one file's route: /api/files/FILE/ROUTE with the token.
std::string api(int file, const std::string& route) {
    return withToken("/api/files/" + std::to_string(file) + "/" + route);
}

Json parsed(const Answer& answer) {
    Json document = Json::parse(answer.body, nullptr, false);
    if (document.is_discarded()) {
        ADD_FAILURE() << "not JSON: " << answer.body;
    }
    return document;
}

std::string text(const Marivane::Logging::ByteBuffer& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

Marivane::Logging::ByteBuffer bytesOfText(const std::string& value) {
    Marivane::Logging::ByteBuffer bytes(value.size());
    std::transform(value.begin(), value.end(), bytes.begin(),
                   [](char c) { return static_cast<std::byte>(c); });
    return bytes;
}

void logEntry(SqliteLogFile& file, int8_t source, int32_t type, int64_t timestamp,
              const std::string& payload) {
    DataEntry entry;
    entry.dataSourceId = source;
    entry.type = type;
    entry.timestamp = timestamp;
    entry.data = bytesOfText(payload);
    ASSERT_TRUE(file.logData(entry)) << file.getLastError();
}

// Bin counts as the server must make them: bin i of `bins` equal slices of
// [from, to] (to included) holds the times t with
// i <= (t - from) * bins / (to - from + 1) < i + 1.
std::vector<uint32_t> expectedCounts(const std::vector<int64_t>& times, int64_t from, int64_t to,
                                     uint32_t bins) {
    std::vector<uint32_t> counts(bins, 0);
    const int64_t span = to - from + 1;
    for (const int64_t time : times) {
        if (time >= from && time <= to) {
            ++counts[static_cast<std::size_t>((time - from) * static_cast<int64_t>(bins) / span)];
        }
    }
    return counts;
}

// The times of the known file's entries of one source.
std::vector<int64_t> knownTimes(int8_t source) {
    std::vector<int64_t> times;
    for (int id = 1; id <= kKnownEntries; ++id) {
        if (knownSource(id) == source) {
            times.push_back(kKnownStart + (id - 1) * kKnownPeriodMs);
        }
    }
    return times;
}

// The payloads' file: every kind of payload the entry route sends.
// Entry 1: binary with zero bytes (source 1 "raw", no encoding).
// Entry 2: a PNG signature (source 2 "pictures", no encoding).
// Entry 3: text under a declared "image/jpeg" (source 3 "declared").
// Entry 4: a web page (source 4 "page", no encoding).
// Entry 5: 100,000 compressible bytes with zeros (source 1).
// Entry 6: nothing (source 1).
const std::string kBinaryPayload("\x00\x01\x00\xff\x00x\x00", 7);
const std::string kPngPayload("\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR", 16);
const std::string kDeclaredPayload = "not really a jpeg";
const std::string kPagePayload = "<!DOCTYPE html><html><script>alert(1)</script></html>";

std::string largePayload() {
    std::string payload(100000, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = i % 7 == 0 ? '\0' : static_cast<char>(i % 251);
    }
    return payload;
}

void writePayloadFile(const std::filesystem::path& path, int8_t compressionLevel) {
    SqliteLogFile file(path.string(), "UTC", "viewtest", "1", compressionLevel, kStart);
    DataSource raw{-1, MV_LogDataSourceType_Generic, "raw"};
    DataSource pictures{-1, MV_LogDataSourceType_Camera, "pictures"};
    DataSource declared{-1, MV_LogDataSourceType_Camera, "declared"};
    DataSource page{-1, MV_LogDataSourceType_Generic, "page"};
    for (DataSource* source : {&raw, &pictures, &declared, &page}) {
        ASSERT_TRUE(file.addDataSource(*source)) << file.getLastError();
    }
    ASSERT_TRUE(file.addDataSourceProperty(PayloadEncoding::property(declared.id, "image/jpeg")));
    logEntry(file, raw.id, 42, kStart, kBinaryPayload);
    logEntry(file, pictures.id, 7, kStart + 10, kPngPayload);
    logEntry(file, declared.id, 8, kStart + 20, kDeclaredPayload);
    logEntry(file, page.id, 9, kStart + 30, kPagePayload);
    logEntry(file, raw.id, 43, kStart + 40, largePayload());
    logEntry(file, raw.id, 44, kStart + 50, "");
}

// The stored size of an entry, as the library reports it.
int64_t storedSizeOf(const std::filesystem::path& path, int32_t entryId) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    int64_t size = -1;
    EXPECT_TRUE(file.visitEntrySummaries(EntryRange{entryId, entryId}, EntryIndexFilter(),
                                         [&size](const EntrySummary& summary) {
                                             size = summary.storedSize;
                                             return true;
                                         }));
    return size;
}

// The JSON file: source 1 "nav" (declared application/json) logs entry
// 2i + 1 at kStart + 100 i for i in 0..19, {"speed": i / 2, "position":
// {"lat": 60 + i, "lon": 10.25}, "depths": [i, 2 i], "name": "x", "ok": true}
// except that entries i = 5 and 6 have no speed; source 2 "raw" logs binary
// entry 2i + 2 at kStart + 100 i + 50.
constexpr int kJsonEntries = 20;

bool hasSpeed(int i) {
    return i != 5 && i != 6;
}

void writeJsonFile(const std::filesystem::path& path) {
    SqliteLogFile file(path.string(), "UTC", "viewtest", "1", 3, kStart);
    DataSource nav{-1, MV_LogDataSourceType_Navigation, "nav"};
    DataSource raw{-1, MV_LogDataSourceType_Generic, "raw"};
    ASSERT_TRUE(file.addDataSource(nav));
    ASSERT_TRUE(file.addDataSource(raw));
    ASSERT_TRUE(
        file.addDataSourceProperty(PayloadEncoding::property(nav.id, std::string(PayloadEncoding::kJson))));
    for (int i = 0; i < kJsonEntries; ++i) {
        // Written in this order: the fields are listed in the document's order.
        nlohmann::ordered_json ordered = nlohmann::ordered_json::object();
        if (hasSpeed(i)) {
            ordered["speed"] = i * 0.5;
        }
        ordered["position"] = {{"lat", 60 + i}, {"lon", 10.25}};
        ordered["depths"] = nlohmann::ordered_json::array({i, 2 * i});
        ordered["name"] = "x";
        ordered["ok"] = true;
        logEntry(file, nav.id, 1, kStart + 100 * i, ordered.dump());
        logEntry(file, raw.id, 2, kStart + 100 * i + 50, std::string("\x00\x01\x02", 3));
    }
}

class ViewServerTest : public ::testing::Test {
protected:
    void serve(std::vector<std::filesystem::path> files, const std::string& bindAddress = "127.0.0.1") {
        ViewOptions options;
        options.files = std::move(files);
        options.token = kToken;
        options.bindAddress = bindAddress;
        server = std::make_unique<ViewServer>(options);
        server->start();
        ASSERT_GT(server->port(), 0);
    }

    Answer get(const std::string& target, httplib::Headers headers = {}) {
        return fetch(server->port(), target, std::move(headers));
    }

    // A JSON answer that must be 200.
    Json getJson(const std::string& target) {
        const Answer answer = get(target);
        EXPECT_EQ(answer.status, 200) << target << ": " << answer.body;
        EXPECT_EQ(answer.header("Content-Type"), "application/json") << target;
        return parsed(answer);
    }

    std::string port() const { return std::to_string(server->port()); }

    TempDir directory;
    std::filesystem::path known = directory.path() / "known.mvlog";
    std::unique_ptr<ViewServer> server;
};

void expectSecurityHeaders(const Answer& answer, const std::string& what) {
    EXPECT_EQ(answer.header("Cache-Control"), "no-store") << what;
    EXPECT_EQ(answer.header("Referrer-Policy"), "no-referrer") << what;
    EXPECT_EQ(answer.header("X-Content-Type-Options"), "nosniff") << what;
}

// ---- the page and the headers of every answer ---------------------------------

TEST_F(ViewServerTest, ServesThePageWithItsContentSecurityPolicy) {
    writeKnownFile(known);
    serve({known});
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + port() + "/?token=secret-token");
    EXPECT_EQ(server->token(), kToken);

    const Answer page = get("/?token=secret-token");
    ASSERT_EQ(page.status, 200);
    EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(page.body.find("<title>mvlog view</title>"), std::string::npos);
    const std::string policy = page.header("Content-Security-Policy");
    EXPECT_NE(policy.find("default-src 'none'"), std::string::npos) << policy;
    EXPECT_NE(policy.find("connect-src 'self'"), std::string::npos) << policy;
    EXPECT_NE(policy.find("frame-ancestors 'none'"), std::string::npos) << policy;
    expectSecurityHeaders(page, "page");
}

TEST_F(ViewServerTest, EveryAnswerCarriesTheSecurityHeaders) {
    writeKnownFile(known);
    const auto garbage = directory.path() / "x.mvlog";
    { std::ofstream(garbage, std::ios::binary) << std::string(8192, '\x5a'); }
    serve({known, garbage});
    const std::vector<std::pair<std::string, int>> targets = {
        {"/?token=secret-token", 200},
        {"/", 403},
        {withToken("/api/files"), 200},
        {api(0, "summary"), 200},
        {api(0, "bins?from=0&to=1&bins=0"), 400},
        {api(0, "entries/3/payload"), 200},
        {api(0, "entries/999/payload"), 404},
        {api(0, "resources/0"), 200},
        {api(1, "summary"), 422},
        {withToken("/etc/passwd"), 404},
    };
    for (const auto& [target, status] : targets) {
        const Answer answer = get(target);
        EXPECT_EQ(answer.status, status) << target;
        expectSecurityHeaders(answer, target);
    }
    const Answer posted = fetch(server->port(), withToken("/api/files"), {}, "POST");
    EXPECT_EQ(posted.status, 405);
    expectSecurityHeaders(posted, "POST");
}

// ---- who is admitted ----------------------------------------------------------

TEST_F(ViewServerTest, RefusesRequestsWithoutTheRightToken) {
    writeKnownFile(known);
    serve({known});
    const std::vector<std::string> refused = {
        "/",
        "/api/files",
        "/api/files/0/summary",
        "/api/files/0/entries/1/payload",
        "/?token=",
        "/?token=secret-tokeN",                // the same length
        "/?token=Secret-token",                // the same length, first character
        "/?token=secret",                      // shorter
        "/?token=secret-token-and-then-some",  // longer
        "/api/files?token=secret-token%00",
        "/api/files/0/summary?token=SECRET-TOKEN",
    };
    for (const std::string& target : refused) {
        const Answer answer = get(target);
        EXPECT_EQ(answer.status, 403) << target;
        EXPECT_EQ(answer.header("Content-Type"), "application/json") << target;
        EXPECT_EQ(answer.body.find("known"), std::string::npos) << target << ": " << answer.body;
        EXPECT_EQ(answer.body.find(directory.path().string()), std::string::npos) << target;
        EXPECT_TRUE(parsed(answer).contains("error")) << answer.body;
    }
    // The header instead of the query.
    EXPECT_EQ(get("/api/files", {{"X-Mvlog-Token", "secret-token"}}).status, 200);
    EXPECT_EQ(get("/api/files", {{"X-Mvlog-Token", "secret-tokeN"}}).status, 403);
    EXPECT_EQ(get("/api/files", {{"X-Mvlog-Token", "secret"}}).status, 403);
    EXPECT_EQ(get("/api/files", {{"X-Mvlog-Token", ""}}).status, 403);
    EXPECT_EQ(get("/api/files?token=secret-token").status, 200);
}

TEST_F(ViewServerTest, AdmitsOnlyTheBoundAddressOrLocalhostAsHost) {
    writeKnownFile(known);
    serve({known});
    const std::string otherPort = std::to_string(server->port() == 65535 ? 1 : server->port() + 1);
    const std::vector<std::string> admitted = {"127.0.0.1:" + port(), "localhost:" + port()};
    for (const std::string& host : admitted) {
        const Answer answer = get(withToken("/api/files"), {{"Host", host}});
        EXPECT_EQ(answer.status, 200) << host;
    }
    const std::vector<std::string> refused = {
        "attacker.example:" + port(),
        "attacker.example",
        "localhost.attacker.example:" + port(),
        "127.0.0.1.attacker.example:" + port(),
        "127.0.0.1:" + otherPort,
        "localhost:" + otherPort,
        "127.0.0.1",
        "localhost",
        "10.1.2.3:" + port(),
        "0.0.0.0:" + port(),
        "127.0.0.1:" + port() + "0",
    };
    for (const std::string& host : refused) {
        for (const std::string& target : {std::string("/?token=secret-token"), withToken("/api/files"),
                                          api(0, "summary"), api(0, "entries/1/payload")}) {
            const Answer answer = get(target, {{"Host", host}});
            EXPECT_EQ(answer.status, 403) << host << " " << target;
            EXPECT_EQ(answer.body.find("known"), std::string::npos) << host << " " << target;
            EXPECT_EQ(answer.body.find("mvlog view</title>"), std::string::npos) << host << " " << target;
        }
    }
}

// Bound to the IPv6 loopback, the browser sends "Host: [::1]:PORT".
TEST_F(ViewServerTest, BoundToTheIpv6LoopbackAdmitsItsBracketedAddress) {
    writeKnownFile(known);
    serve({known}, "::1");
    EXPECT_EQ(server->url(), "http://[::1]:" + port() + "/?token=secret-token");
    const auto ask = [this](const std::string& host, const std::string& target) {
        httplib::Client client("::1", server->port());
        client.set_connection_timeout(10);
        httplib::Headers headers = {{"Host", host}};
        const httplib::Result result = client.Get(target, headers);
        return result ? result->status : -1;
    };
    for (const std::string& host : {"[::1]:" + port(), "localhost:" + port()}) {
        EXPECT_EQ(ask(host, withToken("/api/files")), 200) << host;
        EXPECT_EQ(ask(host, "/api/files"), 403) << host;
    }
    const std::string otherPort = std::to_string(server->port() == 65535 ? 1 : server->port() + 1);
    for (const std::string& host :
         {"::1:" + port(), "[::1]:" + otherPort, std::string("[::1]"), "[::2]:" + port(),
          "127.0.0.1:" + port(), "[::1].attacker.example:" + port(), "attacker.example:" + port()}) {
        EXPECT_EQ(ask(host, withToken("/api/files")), 403) << host;
    }
}

TEST_F(ViewServerTest, ListeningEverywhereAdmitsBracketedIpv6Addresses) {
    writeKnownFile(known);
    serve({known}, "0.0.0.0");
    for (const std::string& host : {"[::1]:" + port(), "[fe80::1]:" + port()}) {
        EXPECT_EQ(get(withToken("/api/files"), {{"Host", host}}).status, 200) << host;
    }
    for (const std::string& host :
         {"[attacker.example]:" + port(), "[::1:" + port(), "[]:" + port(), "[1.2.3.4]:" + port()}) {
        EXPECT_EQ(get(withToken("/api/files"), {{"Host", host}}).status, 403) << host;
    }
}

TEST_F(ViewServerTest, AnswersOnlyGet) {
    writeKnownFile(known);
    serve({known});
    for (const std::string method : {"POST", "PUT", "DELETE"}) {
        const Answer anonymous = fetch(server->port(), "/api/files", {}, method);
        EXPECT_EQ(anonymous.status, 403) << method;
        EXPECT_EQ(anonymous.body.find("known"), std::string::npos) << method;
        for (const std::string& target :
             {withToken("/api/files"), api(0, "summary"), std::string("/?token=secret-token")}) {
            const Answer answer = fetch(server->port(), target, {}, method);
            EXPECT_EQ(answer.status, 405) << method << " " << target;
            EXPECT_EQ(parsed(answer), Json({{"error", "only GET"}})) << method << " " << target;
        }
    }
}

TEST_F(ViewServerTest, NeverOpensAPathFromARequest) {
    writeKnownFile(known);
    { std::ofstream(directory.path() / "x") << "secret contents of x"; }
    serve({known});
    const std::vector<std::string> targets = {
        "/api/files/..%2Fx/summary",
        "/api/files/../x/summary",
        "/api/files/%2Fetc%2Fpasswd/summary",
        "/api/files/known.mvlog/summary",
        "/api/files/" + std::string("%2F") + directory.path().string().substr(1) + "%2Fx/summary",
        "/api/files/1/summary",
        "/api/files/7/summary",
        "/api/files/-1/summary",
        "/api/files/1234567890/summary",
        "/api/files/0/../../etc/passwd",
        "/api/files/0/resources/..%2F..%2Fetc%2Fpasswd",
        "/api/files/0/entries/..%2F1/payload",
        "/etc/passwd",
        "/..%2F..%2Fetc%2Fpasswd",
        "/x",
        "/api/files/0",
        "/api/files/0/",
        "/api/files/0/unknown",
    };
    for (const std::string& target : targets) {
        const Answer answer = get(withToken(target));
        EXPECT_EQ(answer.status, 404) << target << ": " << answer.body;
        EXPECT_EQ(answer.body.find("secret contents"), std::string::npos) << target;
        EXPECT_EQ(answer.body.find("root:"), std::string::npos) << target;
        EXPECT_EQ(answer.body.find("SQLite format"), std::string::npos) << target;
        EXPECT_TRUE(parsed(answer).contains("error")) << target << ": " << answer.body;
    }
    EXPECT_EQ(parsed(get(api(1, "summary"))), Json({{"error", "no such file"}}));
    EXPECT_EQ(parsed(get(api(1, "entries/1/payload"))), Json({{"error", "no such file"}}));
}

TEST_F(ViewServerTest, ListeningEverywhereAdmitsAddressesButNoName) {
    writeKnownFile(known);
    serve({known}, "0.0.0.0");
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + port() + "/?token=secret-token");
    const std::string otherPort = std::to_string(server->port() == 65535 ? 1 : server->port() + 1);
    for (const std::string& host :
         {"127.0.0.1:" + port(), "192.168.7.9:" + port(), "10.0.0.2:" + port(), "localhost:" + port()}) {
        EXPECT_EQ(get(withToken("/api/files"), {{"Host", host}}).status, 200) << host;
    }
    for (const std::string& host :
         {"attacker.example:" + port(), "192.168.7.9.attacker.example:" + port(), "192.168.7.9:" + otherPort,
          std::string("192.168.7.9"), "127.0.0.1:" + otherPort, "1.2.3:" + port(), ":" + port(),
          std::string("attacker.example")}) {
        const Answer answer = get(withToken("/api/files"), {{"Host", host}});
        EXPECT_EQ(answer.status, 403) << host;
        EXPECT_EQ(answer.body.find("known"), std::string::npos) << host;
    }
    // The token is still required.
    EXPECT_EQ(get("/api/files", {{"Host", "192.168.7.9:" + port()}}).status, 403);
}

// ---- the list of files --------------------------------------------------------

TEST_F(ViewServerTest, ListsEveryFileAndWhyADamagedOneCannotBeShown) {
    writeKnownFile(known);
    const auto garbage = directory.path() / "x.mvlog";
    {
        std::string bytes(8192, '\0');
        uint32_t state = 12345;
        for (char& byte : bytes) {
            state = state * 1103515245u + 12345u;
            byte = static_cast<char>(state >> 24);
        }
        std::ofstream(garbage, std::ios::binary) << bytes;
    }
    const auto json = directory.path() / "json.mvlog";
    writeJsonFile(json);
    const auto missing = directory.path() / "missing.mvlog";
    serve({known, garbage, json, missing});

    Json list = getJson(withToken("/api/files"));
    ASSERT_EQ(list.size(), 4u) << list.dump();
    EXPECT_EQ(list[0], Json({{"index", 0}, {"name", "known.mvlog"}, {"entries", 101}, {"problem", nullptr}}));
    EXPECT_EQ(list[1]["index"], 1);
    EXPECT_EQ(list[1]["name"], "x.mvlog");
    EXPECT_EQ(list[1]["entries"], 0);
    ASSERT_TRUE(list[1]["problem"].is_string()) << list.dump();
    const std::string problem = list[1]["problem"].get<std::string>();
    EXPECT_NE(problem.find("x.mvlog"), std::string::npos) << problem;
    EXPECT_NE(problem.find("not in a supported log file format"), std::string::npos) << problem;
    EXPECT_EQ(list[2], Json({{"index", 2}, {"name", "json.mvlog"}, {"entries", 40}, {"problem", nullptr}}));
    EXPECT_EQ(list[3]["name"], "missing.mvlog");
    ASSERT_TRUE(list[3]["problem"].is_string()) << list.dump();
    EXPECT_FALSE(list[3]["problem"].get<std::string>().empty());

    for (const std::string route :
         {"summary", "bins?from=0&to=10&bins=1", "cursor?at=0", "step?at=0&direction=next",
          "entries/1/payload", "fields?source=1", "series?source=1&field=a&from=0&to=1", "resources/0"}) {
        const Answer answer = get(api(1, route));
        EXPECT_EQ(answer.status, 422) << route;
        EXPECT_EQ(parsed(answer), Json({{"error", problem}})) << route;
        EXPECT_EQ(get(api(3, route)).status, 422) << route;
    }
    // The others still answer.
    EXPECT_EQ(getJson(api(0, "summary"))["entries"], 101);
    EXPECT_EQ(getJson(api(2, "summary"))["entries"], 40);
    EXPECT_EQ(get(api(0, "entries/7/payload")).body, text(knownPayload(7)));
}

TEST_F(ViewServerTest, ATruncatedFileIsListedWithTheReason) {
    const auto whole = directory.path() / "whole.mvlog";
    {
        SqliteLogFile file(whole.string(), "UTC", "viewtest", "1", 0, kStart);
        DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int i = 0; i < 2000; ++i) {
            logEntry(file, source.id, 1, kStart + i, std::string(1000, static_cast<char>('a' + i % 26)));
        }
    }
    const auto truncated = directory.path() / "truncated.mvlog";
    std::filesystem::copy_file(whole, truncated);
    std::filesystem::resize_file(truncated, std::filesystem::file_size(whole) / 2);
    serve({truncated, whole});

    Json list = getJson(withToken("/api/files"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["name"], "truncated.mvlog");
    EXPECT_EQ(list[0]["entries"], 0);
    ASSERT_TRUE(list[0]["problem"].is_string()) << list.dump();
    const std::string problem = list[0]["problem"].get<std::string>();
    EXPECT_NE(problem.find("malformed"), std::string::npos) << problem;
    EXPECT_EQ(list[1],
              Json({{"index", 1}, {"name", "whole.mvlog"}, {"entries", 2000}, {"problem", nullptr}}));

    const Answer summary = get(api(0, "summary"));
    EXPECT_EQ(summary.status, 422) << summary.body;
    EXPECT_EQ(parsed(summary), Json({{"error", problem}}));
    EXPECT_EQ(get(api(0, "bins?from=0&to=1&bins=1")).status, 422);
    EXPECT_EQ(getJson(api(1, "summary"))["entries"], 2000);
    EXPECT_EQ(get(api(1, "entries/2000/payload")).body,
              std::string(1000, static_cast<char>('a' + 1999 % 26)));
}

// A file whose pages are damaged after it opened: the first read finds out,
// and the reason is the library's account of the failure.
TEST_F(ViewServerTest, AFileDamagedBehindItsHeaderIsReportedOnceRead) {
    const auto damaged = directory.path() / "damaged.mvlog";
    writeFileWithDamagedPages(damaged);
    writeKnownFile(known);
    serve({damaged, known});

    Json before = getJson(withToken("/api/files"));
    ASSERT_EQ(before.size(), 2u);
    EXPECT_EQ(before[0]["problem"], nullptr) << before.dump();

    const Answer summary = get(api(0, "summary"));
    EXPECT_EQ(summary.status, 422) << summary.body;
    Json refusal = parsed(summary);
    ASSERT_TRUE(refusal["error"].is_string()) << summary.body;
    const std::string reason = refusal["error"].get<std::string>();
    EXPECT_NE(reason.find("damaged.mvlog"), std::string::npos) << reason;
    // The reason, not the text of a last error that never happened.
    EXPECT_EQ(reason.find("No error"), std::string::npos) << reason;

    Json after = getJson(withToken("/api/files"));
    EXPECT_EQ(after[0]["problem"], reason) << after.dump();
    EXPECT_EQ(after[1]["problem"], nullptr);
    EXPECT_EQ(getJson(api(1, "summary"))["entries"], 101);
}

// ---- a file's summary ---------------------------------------------------------

TEST_F(ViewServerTest, SummaryDescribesSourcesMetadataResourcesAndBookmarks) {
    writeKnownFile(known);
    serve({known});
    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["name"], "known.mvlog");
    EXPECT_EQ(summary["entries"], 101);
    EXPECT_EQ(summary["firstTimestamp"], kKnownStart);
    EXPECT_EQ(summary["lastTimestamp"], kKnownStart + 10000);
    EXPECT_EQ(summary["firstEntryId"], 1);
    EXPECT_EQ(summary["lastEntryId"], 101);
    EXPECT_EQ(summary["durability"], "fast");
    EXPECT_EQ(summary["hasTimeIndex"], false);
    EXPECT_EQ(summary["hasEntryChecksums"], false);

    const Json& sources = summary["dataSources"];
    ASSERT_EQ(sources.size(), 3u) << summary.dump();
    EXPECT_EQ(sources[0],
              Json({{"id", 1},
                    {"name", "alpha"},
                    {"type", "Camera"},
                    {"encoding", ""},
                    {"entries", 34},
                    {"firstTimestamp", kKnownStart},
                    {"lastTimestamp", kKnownStart + 9900},
                    {"rate", 1000.0 / 300.0},
                    {"medianIntervalMs", 300},
                    {"properties", Json::array({{{"key", "width"}, {"type", "int64"}, {"value", 640}}})}}));
    EXPECT_EQ(
        sources[1],
        Json({{"id", 2},
              {"name", "beta"},
              {"type", "Navigation"},
              {"encoding", ""},
              {"entries", 34},
              {"firstTimestamp", kKnownStart + 100},
              {"lastTimestamp", kKnownStart + 10000},
              {"rate", 1000.0 / 300.0},
              {"medianIntervalMs", 300},
              {"properties", Json::array({{{"key", "datum"}, {"type", "text"}, {"value", "WGS84"}}})}}));
    EXPECT_EQ(sources[2],
              Json({{"id", 3},
                    {"name", "gamma"},
                    {"type", "1234"},
                    {"encoding", ""},
                    {"entries", 33},
                    {"firstTimestamp", kKnownStart + 200},
                    {"lastTimestamp", kKnownStart + 9800},
                    {"rate", 1000.0 / 300.0},
                    {"medianIntervalMs", 300},
                    {"properties", Json::array({{{"key", "gain"}, {"type", "double"}, {"value", 1.5}}})}}));

    std::map<std::string, Json> metadata;
    for (const Json& entry : summary["metadata"]) {
        metadata[entry["key"].get<std::string>()] =
            Json({{"type", entry["type"]}, {"value", entry["value"]}});
    }
    EXPECT_EQ(summary["metadata"].size(), 7u) << summary["metadata"].dump();
    EXPECT_EQ(metadata["site"], Json({{"type", "text"}, {"value", "Test basin"}}));
    EXPECT_EQ(metadata["applicationName"], Json({{"type", "text"}, {"value", "tooltest"}}));
    EXPECT_EQ(metadata["applicationVersion"], Json({{"type", "text"}, {"value", "1.2"}}));
    EXPECT_EQ(metadata["currentTimeZone"], Json({{"type", "text"}, {"value", "Europe/Oslo"}}));
    EXPECT_EQ(metadata["createdDateTime"], Json({{"type", "int64"}, {"value", kKnownStart}}));
    EXPECT_EQ(metadata["compressionLevel"], Json({{"type", "int64"}, {"value", 3}}));
    EXPECT_EQ(metadata["logVersion"], Json({{"type", "int64"}, {"value", 4}}));

    EXPECT_EQ(summary["resources"], Json::array({{{"index", 0}, {"name", "notes.txt"}, {"size", 5}},
                                                 {{"index", 1}, {"name", "thumbnail"}, {"size", 10}}}));
    EXPECT_EQ(summary["thumbnail"], 1);
    EXPECT_EQ(summary["bookmarks"], Json::array({{{"entryId", 5},
                                                  {"title", "five"},
                                                  {"comments", "first comment"},
                                                  {"timestamp", kKnownStart + 400}}}));
}

TEST_F(ViewServerTest, SummaryOfAFileWithoutThumbnailOrBookmarksAndDeclaredEncodings) {
    const auto json = directory.path() / "json.mvlog";
    writeJsonFile(json);
    serve({json});
    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["thumbnail"], nullptr);
    EXPECT_EQ(summary["bookmarks"], Json::array());
    EXPECT_EQ(summary["resources"], Json::array());
    ASSERT_EQ(summary["dataSources"].size(), 2u);
    EXPECT_EQ(summary["dataSources"][0]["encoding"], "application/json");
    EXPECT_EQ(summary["dataSources"][0]["properties"],
              Json::array({{{"key", "encoding"}, {"type", "text"}, {"value", "application/json"}}}));
    EXPECT_EQ(summary["dataSources"][0]["medianIntervalMs"], 100);
    EXPECT_EQ(summary["dataSources"][0]["rate"], 10.0);
    EXPECT_EQ(summary["dataSources"][1]["encoding"], "");
    EXPECT_EQ(summary["dataSources"][1]["properties"], Json::array());
    EXPECT_EQ(summary["dataSources"][1]["firstTimestamp"], kStart + 50);
    EXPECT_EQ(summary["dataSources"][1]["lastTimestamp"], kStart + 1950);
    EXPECT_EQ(summary["firstEntryId"], 1);
    EXPECT_EQ(summary["lastEntryId"], 40);
}

TEST_F(ViewServerTest, SummaryReportsTheTimeIndexOnceCreated) {
    writeKnownFile(known);
    serve({known});
    EXPECT_EQ(getJson(api(0, "summary"))["hasTimeIndex"], false);
    {
        SqliteLogFile writer(known);
        ASSERT_TRUE(writer.createTimeIndex()) << writer.getLastError();
    }
    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["hasTimeIndex"], true);
    EXPECT_EQ(summary["entries"], 101);

    // And a server started on the indexed file.
    server.reset();
    serve({known});
    EXPECT_EQ(getJson(api(0, "summary"))["hasTimeIndex"], true);
}

TEST_F(ViewServerTest, SummaryOfAnEmptyFile) {
    const auto empty = directory.path() / "empty.mvlog";
    {
        SqliteLogFile file(empty.string(), "UTC", "viewtest", "1", 0, kStart);
        DataSource quiet{-1, MV_LogDataSourceType_Generic, "quiet"};
        ASSERT_TRUE(file.addDataSource(quiet));
    }
    serve({empty});
    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["entries"], 0);
    EXPECT_EQ(summary["firstTimestamp"], nullptr);
    EXPECT_EQ(summary["lastTimestamp"], nullptr);
    ASSERT_EQ(summary["dataSources"].size(), 1u);
    EXPECT_EQ(summary["dataSources"][0]["entries"], 0);
    EXPECT_EQ(summary["dataSources"][0]["firstTimestamp"], nullptr);
    EXPECT_EQ(summary["dataSources"][0]["rate"], 0.0);
    EXPECT_EQ(summary["dataSources"][0]["medianIntervalMs"], 0);
    EXPECT_EQ(getJson(api(0, "cursor?at=0"))["sources"], Json({{"1", {{"found", false}}}}));
    EXPECT_EQ(getJson(api(0, "step?at=0&direction=next")), Json({{"found", false}}));
    Json bins = getJson(api(0, "bins?from=0&to=100&bins=4"));
    EXPECT_EQ(bins["lanes"], Json::object());
    EXPECT_EQ(bins["lastTimestamp"], nullptr);
}

// ---- the timeline -------------------------------------------------------------

TEST_F(ViewServerTest, BinsCountEachSourcesEntriesByTime) {
    writeKnownFile(known);
    serve({known});
    struct Window {
        int64_t from;
        int64_t to;
        uint32_t bins;
    };
    const std::vector<Window> windows = {
        {kKnownStart, kKnownStart + 10000, 1},      {kKnownStart, kKnownStart + 10000, 7},
        {kKnownStart, kKnownStart + 10000, 101},    {kKnownStart - 5000, kKnownStart + 20000, 13},
        {kKnownStart + 100, kKnownStart + 200, 2},  {kKnownStart + 150, kKnownStart + 150, 1},
        {kKnownStart + 250, kKnownStart + 4321, 9}, {kKnownStart + 9999, kKnownStart + 10000, 2},
    };
    for (const Window& window : windows) {
        const std::string query = "bins?from=" + std::to_string(window.from) +
                                  "&to=" + std::to_string(window.to) + "&bins=" + std::to_string(window.bins);
        Json answer = getJson(api(0, query));
        EXPECT_EQ(answer["from"], window.from) << query;
        EXPECT_EQ(answer["to"], window.to) << query;
        EXPECT_EQ(answer["bins"], window.bins) << query;
        EXPECT_EQ(answer["entries"], 101) << query;
        EXPECT_EQ(answer["lastTimestamp"], kKnownStart + 10000) << query;
        ASSERT_EQ(answer["lanes"].size(), 3u) << query;
        for (int8_t source = 1; source <= 3; ++source) {
            const Json& lane = answer["lanes"][std::to_string(source)];
            EXPECT_EQ(lane["counts"].get<std::vector<uint32_t>>(),
                      expectedCounts(knownTimes(source), window.from, window.to, window.bins))
                << query << " source " << int{source};
            EXPECT_EQ(lane["gaps"], Json::array()) << query;
        }
    }
    // The last bin holds `to`: the last entry is counted in a window ending at it.
    Json ending = getJson(api(0, "bins?from=" + std::to_string(kKnownStart) +
                                     "&to=" + std::to_string(kKnownStart + 10000) + "&bins=3"));
    EXPECT_EQ(ending["lanes"]["2"]["counts"], Json::array({11, 11, 12}));
    // The whole range of times, in the most bins.
    Json everything = getJson(api(0, "bins?from=-9223372036854775808&to=9223372036854775807&bins=10000"));
    for (int8_t source = 1; source <= 3; ++source) {
        const auto counts =
            everything["lanes"][std::to_string(source)]["counts"].get<std::vector<uint32_t>>();
        ASSERT_EQ(counts.size(), 10000u);
        std::vector<uint32_t> expected(10000, 0);
        // (kKnownStart + 2^63) * 10000 / 2^64, for every entry.
        expected[5000] = static_cast<uint32_t>(knownTimes(source).size());
        EXPECT_EQ(counts, expected) << int{source};
    }
}

// Bins narrower than the spacing of the times, or whose edges fall between
// two milliseconds: every entry lies in the bin that covers its time.
TEST_F(ViewServerTest, BinEdgesBetweenMillisecondsPlaceEveryEntryInItsBin) {
    const auto dense = directory.path() / "dense.mvlog";
    std::vector<int64_t> times;
    {
        SqliteLogFile file(dense.string(), "UTC", "viewtest", "1", 0, kStart);
        DataSource fine{-1, MV_LogDataSourceType_Generic, "fine"};
        ASSERT_TRUE(file.addDataSource(fine));
        for (int i = 0; i < 100; ++i) {
            logEntry(file, fine.id, 1, kStart + i, "x");
            times.push_back(kStart + i);
        }
    }
    writeKnownFile(known);
    serve({dense, known});
    // The known file in the most bins, each 1.0001 ms wide: the entry at
    // kKnownStart + 100 m lies in bin 100 m - 1.
    {
        Json most = getJson(api(1, "bins?from=" + std::to_string(kKnownStart) +
                                       "&to=" + std::to_string(kKnownStart + 10000) + "&bins=10000"));
        for (int8_t source = 1; source <= 3; ++source) {
            EXPECT_EQ(most["lanes"][std::to_string(source)]["counts"].get<std::vector<uint32_t>>(),
                      expectedCounts(knownTimes(source), kKnownStart, kKnownStart + 10000, 10000))
                << int{source};
        }
    }
    struct Window {
        int64_t from;
        int64_t to;
        uint32_t bins;
    };
    const std::vector<Window> windows = {
        {kStart, kStart + 99, 100},                                // one millisecond a bin
        {kStart, kStart + 99, 7},                                  // edges at 14.29, 28.57, ...
        {kStart, kStart + 99, 3},                                  // edges at 33.33 and 66.67
        {kStart + 3, kStart + 50, 9},  {kStart, kStart + 9, 100},  // a tenth of a millisecond a bin
        {kStart + 10, kStart + 12, 9},
    };
    for (const Window& window : windows) {
        const std::string query = "bins?from=" + std::to_string(window.from) +
                                  "&to=" + std::to_string(window.to) + "&bins=" + std::to_string(window.bins);
        Json answer = getJson(api(0, query));
        EXPECT_EQ(answer["lanes"]["1"]["counts"].get<std::vector<uint32_t>>(),
                  expectedCounts(times, window.from, window.to, window.bins))
            << query;
    }
    // Spelled out: [0, 3.33) holds 0..3, [3.33, 6.67) 4..6, [6.67, 10) 7..9.
    Json thirds = getJson(
        api(0, "bins?from=" + std::to_string(kStart) + "&to=" + std::to_string(kStart + 9) + "&bins=3"));
    EXPECT_EQ(thirds["lanes"]["1"]["counts"], Json::array({4, 3, 3}));
    // Ten bins a millisecond: the entry at kStart is in the first bin.
    Json tenths =
        getJson(api(0, "bins?from=" + std::to_string(kStart) + "&to=" + std::to_string(kStart) + "&bins=10"));
    EXPECT_EQ(tenths["lanes"]["1"]["counts"], Json::array({1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ViewServerTest, BinsMarkASilenceLongerThanFiveMedianIntervals) {
    const auto path = directory.path() / "gaps.mvlog";
    {
        SqliteLogFile file(path.string(), "UTC", "viewtest", "1", 0, kStart);
        DataSource steady{-1, MV_LogDataSourceType_Generic, "steady"};
        DataSource broken{-1, MV_LogDataSourceType_Generic, "broken"};
        ASSERT_TRUE(file.addDataSource(steady));
        ASSERT_TRUE(file.addDataSource(broken));
        for (int64_t t = 0; t <= 1060; t += 10) {
            logEntry(file, steady.id, 1, kStart + t, "s");
        }
        // Every 10 ms, silent from 200 to 800 (a gap), then silent for
        // exactly 5 intervals from 1000 to 1050 (not a gap).
        for (int64_t t = 0; t <= 200; t += 10) {
            logEntry(file, broken.id, 1, kStart + t, "b");
        }
        for (int64_t t = 800; t <= 1000; t += 10) {
            logEntry(file, broken.id, 1, kStart + t, "b");
        }
        logEntry(file, broken.id, 1, kStart + 1050, "b");
        logEntry(file, broken.id, 1, kStart + 1060, "b");
    }
    serve({path});
    const auto bins = [&](int64_t from, int64_t to) {
        return getJson(api(0, "bins?from=" + std::to_string(kStart + from) +
                                  "&to=" + std::to_string(kStart + to) + "&bins=10"));
    };
    Json gap = Json::array({Json::array({kStart + 200, kStart + 800})});
    Json whole = bins(0, 1060);
    EXPECT_EQ(whole["lanes"]["1"]["gaps"], Json::array());
    EXPECT_EQ(whole["lanes"]["2"]["gaps"], gap);
    EXPECT_EQ(bins(300, 400)["lanes"]["2"]["gaps"], gap);  // inside the silence
    EXPECT_EQ(bins(100, 250)["lanes"]["2"]["gaps"], gap);  // its start
    EXPECT_EQ(bins(750, 900)["lanes"]["2"]["gaps"], gap);  // its end
    EXPECT_EQ(bins(0, 199)["lanes"]["2"]["gaps"], Json::array());
    EXPECT_EQ(bins(801, 1060)["lanes"]["2"]["gaps"], Json::array());
    EXPECT_EQ(bins(300, 400)["lanes"]["2"]["counts"], Json::array({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["dataSources"][1]["medianIntervalMs"], 10);
    EXPECT_EQ(summary["dataSources"][1]["entries"], 44);
    EXPECT_EQ(summary["dataSources"][1]["rate"], 100.0);
}

TEST_F(ViewServerTest, BinsRefuseABadWindow) {
    writeKnownFile(known);
    serve({known});
    const std::string from = "from=" + std::to_string(kKnownStart);
    const std::string to = "to=" + std::to_string(kKnownStart + 10000);
    const std::vector<std::string> queries = {
        from + "&" + to + "&bins=0",
        from + "&" + to + "&bins=10001",
        from + "&" + to + "&bins=-1",
        from + "&" + to + "&bins=4294967297",
        from + "&" + to + "&bins=x",
        from + "&" + to + "&bins=1.5",
        from + "&" + to + "&bins=",
        from + "&" + to,
        from + "&bins=10",
        to + "&bins=10",
        "from=" + std::to_string(kKnownStart + 1) + "&to=" + std::to_string(kKnownStart) + "&bins=10",
        "from=abc&" + to + "&bins=10",
        "from=1.5&" + to + "&bins=10",
        "from=1e3&" + to + "&bins=10",
        "from=%201000&" + to + "&bins=10",
        "from=99999999999999999999&" + to + "&bins=10",
        from + "&to=9223372036854775808&bins=10",
        "",
    };
    for (const std::string& query : queries) {
        const Answer answer = get(api(0, "bins?" + query));
        EXPECT_EQ(answer.status, 400) << query << ": " << answer.body;
        Json refusal = parsed(answer);
        EXPECT_TRUE(refusal.contains("error") && refusal["error"].is_string())
            << query << ": " << answer.body;
    }
    Json most = getJson(api(0, "bins?" + from + "&" + to + "&bins=10000"));
    for (int8_t source = 1; source <= 3; ++source) {
        const Json& counts = most["lanes"][std::to_string(source)]["counts"];
        ASSERT_EQ(counts.size(), 10000u);
        uint32_t total = 0;
        for (const Json& count : counts) {
            total += count.get<uint32_t>();
        }
        EXPECT_EQ(total, knownTimes(source).size());
    }
}

TEST_F(ViewServerTest, CursorFindsEachSourcesEntryAtOrBeforeATime) {
    writeKnownFile(known);
    serve({known});
    const auto cursor = [&](int64_t at) {
        Json answer = getJson(api(0, "cursor?at=" + std::to_string(at)));
        EXPECT_EQ(answer["at"], at);
        return answer["sources"];
    };
    const auto found = [](int entryId) {
        return Json(
            {{"found", true}, {"entryId", entryId}, {"timestamp", kKnownStart + (entryId - 1) * 100}});
    };
    Json none = Json({{"found", false}});
    EXPECT_EQ(cursor(kKnownStart + 450), Json({{"1", found(4)}, {"2", found(5)}, {"3", found(3)}}));
    EXPECT_EQ(cursor(kKnownStart + 500), Json({{"1", found(4)}, {"2", found(5)}, {"3", found(6)}}));
    EXPECT_EQ(cursor(kKnownStart + 499), Json({{"1", found(4)}, {"2", found(5)}, {"3", found(3)}}));
    EXPECT_EQ(cursor(kKnownStart - 1), Json({{"1", none}, {"2", none}, {"3", none}}));
    EXPECT_EQ(cursor(kKnownStart), Json({{"1", found(1)}, {"2", none}, {"3", none}}));
    EXPECT_EQ(cursor(kKnownStart + 150), Json({{"1", found(1)}, {"2", found(2)}, {"3", none}}));
    EXPECT_EQ(cursor(kKnownStart + 10000), Json({{"1", found(100)}, {"2", found(101)}, {"3", found(99)}}));
    EXPECT_EQ(cursor(INT64_MAX), Json({{"1", found(100)}, {"2", found(101)}, {"3", found(99)}}));
    EXPECT_EQ(cursor(INT64_MIN), Json({{"1", none}, {"2", none}, {"3", none}}));
    for (const std::string query : {"cursor", "cursor?at=", "cursor?at=x", "cursor?at=1.5"}) {
        EXPECT_EQ(get(api(0, query)).status, 400) << query;
    }
}

TEST_F(ViewServerTest, StepFindsTheNextAndPreviousEntry) {
    writeKnownFile(known);
    serve({known});
    const auto step = [&](int64_t at, const std::string& direction, const std::string& source = "") {
        return getJson(api(0, "step?at=" + std::to_string(at) + "&direction=" + direction +
                                  (source.empty() ? "" : "&source=" + source)));
    };
    const auto found = [](int entryId) {
        return Json(
            {{"found", true}, {"entryId", entryId}, {"timestamp", kKnownStart + (entryId - 1) * 100}});
    };
    Json none = Json({{"found", false}});
    EXPECT_EQ(step(kKnownStart + 450, "next"), found(6));
    EXPECT_EQ(step(kKnownStart + 450, "previous"), found(5));
    EXPECT_EQ(step(kKnownStart + 500, "next"), found(7));      // strictly after
    EXPECT_EQ(step(kKnownStart + 500, "previous"), found(5));  // strictly before
    EXPECT_EQ(step(kKnownStart + 450, "next", "1"), found(7));
    EXPECT_EQ(step(kKnownStart + 450, "previous", "1"), found(4));
    EXPECT_EQ(step(kKnownStart + 450, "next", "3"), found(6));
    EXPECT_EQ(step(kKnownStart + 450, "previous", "3"), found(3));
    EXPECT_EQ(step(kKnownStart - 1000, "next"), found(1));
    EXPECT_EQ(step(kKnownStart - 1000, "next", "2"), found(2));
    EXPECT_EQ(step(kKnownStart + 99999, "previous"), found(101));
    EXPECT_EQ(step(kKnownStart + 99999, "previous", "3"), found(99));
    // The ends.
    EXPECT_EQ(step(kKnownStart + 10000, "next"), none);
    EXPECT_EQ(step(kKnownStart, "previous"), none);
    EXPECT_EQ(step(kKnownStart + 9800, "next", "3"), none);
    EXPECT_EQ(step(kKnownStart + 200, "previous", "3"), none);
    EXPECT_EQ(step(kKnownStart + 450, "next", "9"), none);
    EXPECT_EQ(step(kKnownStart + 450, "previous", "-5"), none);
    EXPECT_EQ(step(INT64_MAX, "next"), none);
    EXPECT_EQ(step(INT64_MIN, "previous"), none);

    const std::string at = "at=" + std::to_string(kKnownStart);
    for (const std::string& query :
         {at + "&direction=sideways", at + "&direction=", at, at + "&direction=Next",
          std::string("direction=next"), at + "&direction=next&source=200", at + "&direction=next&source=x",
          at + "&direction=next&source="}) {
        const Answer answer = get(api(0, "step?" + query));
        EXPECT_EQ(answer.status, 400) << query << ": " << answer.body;
        EXPECT_TRUE(parsed(answer).contains("error")) << query;
    }
}

// ---- payloads -----------------------------------------------------------------

void expectPayloadFile(int port, const std::filesystem::path& path, int file) {
    SCOPED_TRACE(path.filename().string());
    struct Expected {
        int32_t id;
        int source;
        int type;
        int64_t timestamp;
        std::string bytes;
        std::string mediaType;
    };
    const std::vector<Expected> expected = {
        {1, 1, 42, kStart, kBinaryPayload, "application/octet-stream"},
        {2, 2, 7, kStart + 10, kPngPayload, "image/png"},
        {3, 3, 8, kStart + 20, kDeclaredPayload, "image/jpeg"},
        {4, 4, 9, kStart + 30, kPagePayload, "text/plain"},
        {5, 1, 43, kStart + 40, largePayload(), "application/octet-stream"},
        {6, 1, 44, kStart + 50, "", "application/octet-stream"},
    };
    for (const Expected& entry : expected) {
        const std::string target = api(file, "entries/" + std::to_string(entry.id) + "/payload");
        const Answer answer = fetch(port, target);
        ASSERT_EQ(answer.status, 200) << target << ": " << answer.body;
        EXPECT_EQ(answer.body, entry.bytes) << target;
        EXPECT_EQ(answer.header("Content-Type"), "application/octet-stream") << target;
        EXPECT_EQ(answer.header("X-Content-Type-Options"), "nosniff") << target;
        EXPECT_EQ(answer.header("X-Mvlog-Entry-Id"), std::to_string(entry.id)) << target;
        EXPECT_EQ(answer.header("X-Mvlog-Data-Source"), std::to_string(entry.source)) << target;
        EXPECT_EQ(answer.header("X-Mvlog-Type"), std::to_string(entry.type)) << target;
        EXPECT_EQ(answer.header("X-Mvlog-Timestamp"), std::to_string(entry.timestamp)) << target;
        EXPECT_EQ(answer.header("X-Mvlog-Size"), std::to_string(entry.bytes.size())) << target;
        EXPECT_EQ(answer.header("X-Mvlog-Stored-Size"), std::to_string(storedSizeOf(path, entry.id)))
            << target;
        EXPECT_EQ(answer.header("X-Mvlog-Media-Type"), entry.mediaType) << target;

        const Answer preview = fetch(port, target + "&limit=4");
        ASSERT_EQ(preview.status, 200) << target;
        EXPECT_EQ(preview.body, entry.bytes.substr(0, 4)) << target;
        EXPECT_EQ(preview.header("X-Mvlog-Size"), std::to_string(entry.bytes.size())) << target;
        EXPECT_EQ(preview.header("X-Mvlog-Media-Type"), entry.mediaType) << target;
        EXPECT_EQ(fetch(port, target + "&limit=0").body, entry.bytes) << target;
        EXPECT_EQ(fetch(port, target + "&limit=16777216").body, entry.bytes) << target;
    }
}

TEST_F(ViewServerTest, PayloadsAreTheLoggedBytesWithTheirRecordInHeaders) {
    const auto compressed = directory.path() / "compressed.mvlog";
    const auto plain = directory.path() / "plain.mvlog";
    writePayloadFile(compressed, 3);
    writePayloadFile(plain, 0);
    serve({compressed, plain});
    expectPayloadFile(server->port(), compressed, 0);
    expectPayloadFile(server->port(), plain, 1);
    // Stored as written without compression, smaller with it.
    EXPECT_EQ(get(api(1, "entries/5/payload")).header("X-Mvlog-Stored-Size"), "100000");
    EXPECT_LT(std::stoll(get(api(0, "entries/5/payload")).header("X-Mvlog-Stored-Size")), 100000);
}

// A source that declares application/octet-stream (mixed payloads, as the
// demo's receiver logs binary fixes and text lines) is read as one that
// declares nothing: each payload's first bytes say what it is, as `mvlog
// cat` and the Python package say. Any other declared type stands.
TEST_F(ViewServerTest, PayloadsOfABytesSourceAreSniffedOneByOne) {
    const auto path = directory.path() / "mixed.mvlog";
    const std::string pixmap = "P6\n2 1\n255\n\xff\x00\x00\x00\xff\x00";
    const std::string graymap = "P5\n2 2\n255\n\x00\x40\x80\xff";
    {
        SqliteLogFile file(path.string(), "UTC", "viewtest", "1", 3, kStart);
        DataSource mixed{-1, MV_LogDataSourceType_Navigation, "mixed"};
        DataSource plain{-1, MV_LogDataSourceType_Generic, "plain"};
        ASSERT_TRUE(file.addDataSource(mixed));
        ASSERT_TRUE(file.addDataSource(plain));
        ASSERT_TRUE(file.addDataSourceProperty(
            PayloadEncoding::property(mixed.id, std::string(PayloadEncoding::kOctetStream))));
        ASSERT_TRUE(file.addDataSourceProperty(
            PayloadEncoding::property(plain.id, std::string(PayloadEncoding::kText))));
        logEntry(file, mixed.id, 1, kStart, "$STATUS,t=0,fix=RTK,sats=12");
        logEntry(file, mixed.id, 2, kStart + 1, kBinaryPayload);
        logEntry(file, mixed.id, 3, kStart + 2, kPngPayload);
        logEntry(file, mixed.id, 4, kStart + 3, R"({"speed": 4.2})");
        logEntry(file, mixed.id, 5, kStart + 4, pixmap);
        logEntry(file, mixed.id, 6, kStart + 5, graymap);
        logEntry(file, plain.id, 7, kStart + 6, kPngPayload);
    }
    serve({path});
    const std::vector<std::pair<int, std::string>> expected = {
        {1, "text/plain"},       {2, "application/octet-stream"}, {3, "image/png"},
        {4, "application/json"}, {5, "image/x-portable-pixmap"},  {6, "image/x-portable-graymap"},
        {7, "text/plain"},
    };
    for (const auto& [id, mediaType] : expected) {
        const Answer whole = get(api(0, "entries/" + std::to_string(id) + "/payload"));
        ASSERT_EQ(whole.status, 200) << id;
        EXPECT_EQ(whole.header("X-Mvlog-Media-Type"), mediaType) << id;
        // A preview is sniffed from the whole payload, not from what is sent.
        const Answer preview = get(api(0, "entries/" + std::to_string(id) + "/payload?limit=2"));
        EXPECT_EQ(preview.header("X-Mvlog-Media-Type"), mediaType) << id;
        EXPECT_EQ(preview.body.size(), 2u) << id;
    }
    // The summary keeps what the source declares.
    EXPECT_EQ(getJson(api(0, "summary"))["dataSources"][0]["encoding"], "application/octet-stream");
}

TEST_F(ViewServerTest, PayloadRefusesAMissingEntryOrABadLimit) {
    const auto path = directory.path() / "payloads.mvlog";
    writePayloadFile(path, 3);
    serve({path});
    for (const std::string id : {"0", "7", "1000", "2147483647", "2147483648", "9999999999"}) {
        const Answer answer = get(api(0, "entries/" + id + "/payload"));
        EXPECT_EQ(answer.status, 404) << id;
        EXPECT_EQ(answer.header("Content-Type"), "application/json") << id;
        EXPECT_FALSE(answer.hasHeader("X-Mvlog-Entry-Id")) << id;
        EXPECT_TRUE(parsed(answer).contains("error")) << id;
    }
    EXPECT_EQ(parsed(get(api(0, "entries/7/payload"))), Json({{"error", "no entry 7"}}));
    for (const std::string route :
         {"entries/-1/payload", "entries/x/payload", "entries/12345678901/payload"}) {
        EXPECT_EQ(get(api(0, route)).status, 404) << route;
    }
    for (const std::string limit : {"-1", "x", "16777217", "1.5"}) {
        EXPECT_EQ(get(api(0, "entries/1/payload?limit=" + limit)).status, 400) << limit;
    }
}

// ---- fields and series of JSON payloads ---------------------------------------

TEST_F(ViewServerTest, FieldsListTheNumericPathsOfJsonPayloads) {
    const auto path = directory.path() / "json.mvlog";
    writeJsonFile(path);
    writeKnownFile(known);
    serve({path, known});
    EXPECT_EQ(
        getJson(api(0, "fields?source=1")),
        Json({{"dataSourceId", 1},
              {"fields", Json::array({"speed", "position.lat", "position.lon", "depths.0", "depths.1"})}}));
    EXPECT_EQ(getJson(api(0, "fields?source=2")), Json({{"dataSourceId", 2}, {"fields", Json::array()}}));
    EXPECT_EQ(getJson(api(0, "fields?source=9")), Json({{"dataSourceId", 9}, {"fields", Json::array()}}));
    EXPECT_EQ(getJson(api(1, "fields?source=1"))["fields"], Json::array());
    for (const std::string query : {"fields", "fields?source=", "fields?source=x", "fields?source=128"}) {
        EXPECT_EQ(get(api(0, query)).status, 400) << query;
    }
}

TEST_F(ViewServerTest, SeriesAreThePayloadsValues) {
    const auto path = directory.path() / "json.mvlog";
    writeJsonFile(path);
    serve({path});
    const std::string window = "&from=" + std::to_string(kStart) + "&to=" + std::to_string(kStart + 1950);
    const auto series = [&](const std::string& field, const std::string& more = "") {
        return getJson(api(0, "series?source=1&field=" + field + window + more));
    };

    Json speeds = Json::array();
    Json lats = Json::array();
    Json depths = Json::array();
    for (int i = 0; i < kJsonEntries; ++i) {
        if (hasSpeed(i)) {
            speeds.push_back(Json::array({kStart + 100 * i, i * 0.5, 2 * i + 1}));
        }
        lats.push_back(Json::array({kStart + 100 * i, 60 + i, 2 * i + 1}));
        depths.push_back(Json::array({kStart + 100 * i, 2 * i, 2 * i + 1}));
    }
    Json speed = series("speed");
    EXPECT_EQ(speed["dataSourceId"], 1);
    EXPECT_EQ(speed["field"], "speed");
    EXPECT_EQ(speed["from"], kStart);
    EXPECT_EQ(speed["to"], kStart + 1950);
    EXPECT_EQ(speed["entries"], 20);
    EXPECT_EQ(speed["sampled"], false);
    EXPECT_EQ(speed["withoutValue"], 2);
    EXPECT_EQ(speed["points"], speeds);
    Json lat = series("position.lat");
    EXPECT_EQ(lat["withoutValue"], 0);
    EXPECT_EQ(lat["points"], lats);
    EXPECT_EQ(series("depths.1")["points"], depths);
    Json absent = series("depths.2");
    EXPECT_EQ(absent["entries"], 20);
    EXPECT_EQ(absent["withoutValue"], 20);
    EXPECT_EQ(absent["points"], Json::array());
    EXPECT_EQ(series("name")["withoutValue"], 20);  // text, not a number
    EXPECT_EQ(series("ok")["withoutValue"], 20);    // a boolean

    // A part of the time.
    Json part = getJson(api(0, "series?source=1&field=speed&from=" + std::to_string(kStart + 500) +
                                   "&to=" + std::to_string(kStart + 900)));
    EXPECT_EQ(part["entries"], 5);
    EXPECT_EQ(part["withoutValue"], 2);
    EXPECT_EQ(part["points"],
              Json::array({Json::array({kStart + 700, 3.5, 15}), Json::array({kStart + 800, 4.0, 17}),
                           Json::array({kStart + 900, 4.5, 19})}));

    // Fewer points than entries: spread evenly, the first and the last included.
    Json sampled = series("position.lat", "&limit=5");
    EXPECT_EQ(sampled["entries"], 20);
    EXPECT_EQ(sampled["sampled"], true);
    EXPECT_EQ(sampled["withoutValue"], 0);
    ASSERT_EQ(sampled["points"].size(), 5u);
    EXPECT_EQ(sampled["points"], Json::array({lats[0], lats[4], lats[9], lats[14], lats[19]}));
    Json one = series("position.lat", "&limit=1");
    EXPECT_EQ(one["points"].size(), 1u);
    EXPECT_EQ(one["sampled"], true);
    Json two = series("position.lat", "&limit=2");
    EXPECT_EQ(two["points"], Json::array({lats[0], lats[19]}));
    EXPECT_EQ(series("position.lat", "&limit=20")["sampled"], false);
    EXPECT_EQ(series("position.lat", "&limit=10000")["points"], lats);

    // Source 2 holds no JSON.
    Json raw = getJson(api(0, "series?source=2&field=speed" + window));
    EXPECT_EQ(raw["entries"], 20);
    EXPECT_EQ(raw["withoutValue"], 20);
    EXPECT_EQ(raw["points"], Json::array());

    for (const std::string more : {"&limit=0", "&limit=10001", "&limit=x"}) {
        EXPECT_EQ(get(api(0, "series?source=1&field=speed" + window + more)).status, 400) << more;
    }
    for (const std::string& query : std::vector<std::string>{
             "series?field=speed" + window, "series?source=1&field=speed",
             "series?source=1&field=speed&from=10&to=9", "series?source=1&field=speed&from=x&to=9"}) {
        EXPECT_EQ(get(api(0, query)).status, 400) << query;
    }
}

// ---- resources ----------------------------------------------------------------

TEST_F(ViewServerTest, ResourcesAreTheirBytesUnderASafeName) {
    const auto path = directory.path() / "resources.mvlog";
    const std::string binary("\x00\xff\x00\x01zero\x00", 9);
    const std::string hostile = "../../evil\"name\n.sh";
    {
        SqliteLogFile file(path.string(), "UTC", "viewtest", "1", 3, kStart);
        ASSERT_TRUE(file.addResource("notes.txt", bytesOfText("hello")));
        ASSERT_TRUE(file.addResource("blob.bin", bytesOfText(binary)));
        ASSERT_TRUE(file.addResource(hostile, bytesOfText("#!/bin/sh\necho pwned\n")));
        ASSERT_TRUE(file.addResource("kart/\xc3\xa6.png", bytesOfText("png")));
        ASSERT_TRUE(file.addResource("", bytesOfText("nameless")));
    }
    serve({path});
    const auto resource = [&](int index) { return get(api(0, "resources/" + std::to_string(index))); };

    const Answer notes = resource(0);
    ASSERT_EQ(notes.status, 200);
    EXPECT_EQ(notes.body, "hello");
    EXPECT_EQ(notes.header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(notes.header("Content-Disposition"), "attachment; filename=\"notes.txt\"");
    expectSecurityHeaders(notes, "resource");

    const Answer blob = resource(1);
    EXPECT_EQ(blob.body, binary);
    EXPECT_EQ(blob.header("Content-Disposition"), "attachment; filename=\"blob.bin\"");

    const Answer evil = resource(2);
    ASSERT_EQ(evil.status, 200);
    EXPECT_EQ(evil.body, "#!/bin/sh\necho pwned\n");
    const std::string disposition = evil.header("Content-Disposition");
    EXPECT_EQ(disposition, "attachment; filename=\"resource.._.._evil_name_.sh\"");
    const std::string prefix = "attachment; filename=\"";
    ASSERT_EQ(disposition.compare(0, prefix.size(), prefix), 0) << disposition;
    ASSERT_EQ(disposition.back(), '"') << disposition;
    const std::string name = disposition.substr(prefix.size(), disposition.size() - prefix.size() - 1);
    for (const char c : name) {
        const bool safe = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                          c == '.' || c == '_' || c == '-';
        EXPECT_TRUE(safe) << "'" << c << "' in " << disposition;
    }
    EXPECT_NE(name.front(), '.');

    EXPECT_EQ(resource(3).header("Content-Disposition"), "attachment; filename=\"kart___.png\"");
    EXPECT_EQ(resource(3).body, "png");
    EXPECT_EQ(resource(4).header("Content-Disposition"), "attachment; filename=\"resource\"");
    EXPECT_EQ(resource(4).body, "nameless");
    // Each resource's type, as its first bytes say.
    EXPECT_EQ(notes.header("X-Mvlog-Media-Type"), "text/plain");
    EXPECT_EQ(blob.header("X-Mvlog-Media-Type"), "application/octet-stream");
    EXPECT_EQ(resource(4).header("X-Mvlog-Media-Type"), "text/plain");

    const Answer past = resource(5);
    EXPECT_EQ(past.status, 404);
    EXPECT_EQ(parsed(past), Json({{"error", "no such resource"}}));
    EXPECT_EQ(get(api(0, "resources/999999999")).status, 404);

    Json summary = getJson(api(0, "summary"));
    ASSERT_EQ(summary["resources"].size(), 5u);
    EXPECT_EQ(summary["resources"][2], Json({{"index", 2}, {"name", hostile}, {"size", 21}}));
    EXPECT_EQ(summary["thumbnail"], nullptr);
}

// ---- texts from the files -----------------------------------------------------

TEST_F(ViewServerTest, HostileTextsArriveAsJsonText) {
    const std::string sourceName = "</script><img src=x onerror=alert(1)>\"\\";
    const std::string fileName = "quote\"<b>\xff.mvlog";
    const auto path = directory.path() / fileName;
    {
        SqliteLogFile file(path.string(), "UTC", "viewtest", "1", 0, kStart);
        DataSource source{-1, MV_LogDataSourceType_Generic, sourceName};
        ASSERT_TRUE(file.addDataSource(source));
        ASSERT_TRUE(file.addDataSourceProperty({source.id, "k\"\x01\xfe", std::string("v\x1b[31m\xc3(")}));
        logEntry(file, source.id, 1, kStart, "x");
        logEntry(file, source.id, 1, kStart + 10, "y");
        ASSERT_TRUE(file.addMetadata("note", std::string("say \"hi\"\x01\x1b[31m\xff\xfe end\\x41")));
        ASSERT_TRUE(file.addMetadata("k\xff", std::string("<script>alert(1)</script>")));
        ASSERT_TRUE(file.addBookmark(Bookmark{1, "a\"b\x07\xc3(\n</script>", "\xe2\x82", {}}));
        ASSERT_TRUE(file.addResource("r\xff\"<", bytesOfText("r")));
    }
    serve({path});

    const Answer list = get(withToken("/api/files"));
    ASSERT_EQ(list.status, 200);
    EXPECT_EQ(parsed(list)[0]["name"], "quote\"<b>\\xff.mvlog");

    const Answer answer = get(api(0, "summary"));
    ASSERT_EQ(answer.status, 200);
    Json summary = Json::parse(answer.body);  // throws when not JSON
    EXPECT_EQ(summary["name"], "quote\"<b>\\xff.mvlog");
    EXPECT_EQ(summary["dataSources"][0]["name"], sourceName);
    EXPECT_EQ(summary["dataSources"][0]["properties"],
              Json::array({{{"key", "k\"\x01\\xfe"}, {"type", "text"}, {"value", "v\x1b[31m\\xc3("}}}));
    std::map<std::string, Json> metadata;
    for (const Json& entry : summary["metadata"]) {
        metadata[entry["key"].get<std::string>()] = entry["value"];
    }
    EXPECT_EQ(metadata["note"], "say \"hi\"\x01\x1b[31m\\xff\\xfe end\\x41");
    EXPECT_EQ(metadata["k\\xff"], "<script>alert(1)</script>");
    EXPECT_EQ(summary["bookmarks"], Json::array({{{"entryId", 1},
                                                  {"title", "a\"b\x07\\xc3(\n</script>"},
                                                  {"comments", "\\xe2\\x82"},
                                                  {"timestamp", kStart}}}));
    EXPECT_EQ(summary["resources"][0]["name"], "r\\xff\"<");
    // Control characters travel as JSON escapes, never raw.
    EXPECT_EQ(answer.body.find('\x1b'), std::string::npos);
    EXPECT_EQ(answer.body.find('\x07'), std::string::npos);
    EXPECT_EQ(answer.body.find('\xff'), std::string::npos);
}

// ---- a file being written -----------------------------------------------------

TEST_F(ViewServerTest, FollowsAFileThatIsStillBeingWritten) {
    const auto path = directory.path() / "live.mvlog";
    SqliteLogFile writer(path.string(), "UTC", "viewtest", "1", 3, kStart, Durability::Safe);
    DataSource sonar{-1, MV_LogDataSourceType_Radar, "sonar"};
    ASSERT_TRUE(writer.addDataSource(sonar));
    for (int i = 0; i < 10; ++i) {
        logEntry(writer, sonar.id, 1, kStart + 10 * i, "ping " + std::to_string(i));
    }
    serve({path});
    const std::string window =
        "from=" + std::to_string(kStart) + "&to=" + std::to_string(kStart + 1000) + "&bins=1";

    Json summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["durability"], "safe");
    EXPECT_EQ(summary["entries"], 10);
    EXPECT_EQ(summary["lastTimestamp"], kStart + 90);
    Json bins = getJson(api(0, "bins?" + window));
    EXPECT_EQ(bins["entries"], 10);
    EXPECT_EQ(bins["lastTimestamp"], kStart + 90);
    EXPECT_EQ(bins["lanes"]["1"]["counts"], Json::array({10}));

    for (int i = 10; i < 15; ++i) {
        logEntry(writer, sonar.id, 1, kStart + 10 * i, "ping " + std::to_string(i));
    }
    bins = getJson(api(0, "bins?" + window));
    EXPECT_EQ(bins["entries"], 15);
    EXPECT_EQ(bins["lastTimestamp"], kStart + 140);
    EXPECT_EQ(bins["lanes"]["1"]["counts"], Json::array({15}));
    EXPECT_EQ(getJson(api(0, "step?at=" + std::to_string(kStart + 90) + "&direction=next")),
              Json({{"found", true}, {"entryId", 11}, {"timestamp", kStart + 100}}));
    EXPECT_EQ(get(api(0, "entries/15/payload")).body, "ping 14");

    // A batch, and a new source, committed.
    DataSource echo{-1, MV_LogDataSourceType_Radar, "echo"};
    ASSERT_TRUE(writer.addDataSource(echo));
    {
        auto batch = writer.beginBatch();
        for (int i = 15; i < 18; ++i) {
            logEntry(writer, echo.id, 2, kStart + 10 * i, "echo " + std::to_string(i));
        }
        ASSERT_TRUE(batch.commit()) << writer.getLastError();
    }
    summary = getJson(api(0, "summary"));
    EXPECT_EQ(summary["entries"], 18);
    EXPECT_EQ(summary["lastTimestamp"], kStart + 170);
    EXPECT_EQ(summary["lastEntryId"], 18);
    ASSERT_EQ(summary["dataSources"].size(), 2u);
    EXPECT_EQ(summary["dataSources"][0]["entries"], 15);
    EXPECT_EQ(summary["dataSources"][1]["name"], "echo");
    EXPECT_EQ(summary["dataSources"][1]["entries"], 3);
    EXPECT_EQ(summary["dataSources"][1]["lastTimestamp"], kStart + 170);
    EXPECT_EQ(getJson(api(0, "cursor?at=" + std::to_string(kStart + 1000)))["sources"],
              Json({{"1", {{"found", true}, {"entryId", 15}, {"timestamp", kStart + 140}}},
                    {"2", {{"found", true}, {"entryId", 18}, {"timestamp", kStart + 170}}}}));
    EXPECT_EQ(getJson(withToken("/api/files"))[0]["entries"], 18);
}

// ---- many requests at once ----------------------------------------------------

// The requests of several pages at once, on two files: every answer is the
// one a lone request gets. Run under ThreadSanitizer too.
TEST(ViewServerConcurrencyTest, ManyThreadsGetTheAnswersOfALoneRequest) {
    TempDir directory;
    const auto known = directory.path() / "known.mvlog";
    const auto json = directory.path() / "json.mvlog";
    writeKnownFile(known);
    writeJsonFile(json);
    ViewOptions options;
    options.files = {known, json};
    options.token = kToken;
    ViewServer server(options);
    server.start();
    const int port = server.port();

    std::vector<std::string> targets = {withToken("/api/files")};
    for (int file = 0; file < 2; ++file) {
        const int64_t start = file == 0 ? kKnownStart : kStart;
        const auto at = [start](int64_t offset) { return std::to_string(start + offset); };
        targets.push_back(api(file, "summary"));
        targets.push_back(api(file, "bins?from=" + at(0) + "&to=" + at(10000) + "&bins=50"));
        targets.push_back(api(file, "bins?from=" + at(-100) + "&to=" + at(777) + "&bins=7"));
        targets.push_back(api(file, "cursor?at=" + at(450)));
        targets.push_back(api(file, "step?at=" + at(450) + "&direction=next"));
        targets.push_back(api(file, "step?at=" + at(450) + "&direction=previous&source=1"));
        targets.push_back(api(file, "fields?source=1"));
        targets.push_back(
            api(file, "series?source=1&field=position.lat&from=" + at(0) + "&to=" + at(2000) + "&limit=7"));
        targets.push_back(api(file, "resources/0"));
        targets.push_back(api(file, "entries/1000/payload"));
        for (const int id : {1, 2, 17, 40}) {
            targets.push_back(api(file, "entries/" + std::to_string(id) + "/payload"));
        }
    }
    // Every payload of the known file, checked against what was logged.
    const std::size_t compared = targets.size();
    for (int id = 1; id <= kKnownEntries; ++id) {
        targets.push_back(api(0, "entries/" + std::to_string(id) + "/payload"));
    }
    std::vector<Answer> lone;
    for (std::size_t i = 0; i < compared; ++i) {
        lone.push_back(fetch(port, targets[i]));
        EXPECT_GT(lone.back().status, 0) << targets[i];
    }
    EXPECT_EQ(parsed(lone[1])["entries"], 101);

    constexpr int kThreads = 8;
    constexpr int kRequests = 50;
    std::vector<std::vector<std::string>> failures(kThreads);
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int j = 0; j < kRequests; ++j) {
                const std::size_t pick =
                    (static_cast<std::size_t>(t) * 13 + static_cast<std::size_t>(j) * 7) % targets.size();
                const Answer answer = fetch(port, targets[pick]);
                if (pick < compared) {
                    if (answer.status != lone[pick].status || answer.body != lone[pick].body) {
                        failures[t].push_back(targets[pick] + ": " + std::to_string(answer.status) + " " +
                                              answer.body.substr(0, 200));
                    }
                } else {
                    const int id = static_cast<int>(pick - compared) + 1;
                    if (answer.status != 200 || answer.body != text(knownPayload(id)) ||
                        answer.header("X-Mvlog-Entry-Id") != std::to_string(id)) {
                        failures[t].push_back(targets[pick] + ": " + std::to_string(answer.status));
                    }
                }
                ++answered;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answered.load(), kThreads * kRequests);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_TRUE(failures[t].empty()) << "thread " << t << ": " << failures[t].size() << " wrong, first "
                                         << (failures[t].empty() ? "" : failures[t].front());
    }
    server.stop();
}

// A connection to 127.0.0.1:`port` that sends nothing: it holds a worker
// (or a place in the queue) until it closes.
int idleConnection(int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket < 0 || ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "cannot connect";
    }
    return socket;
}

// Waits (at most 10 s) until the server holds `count` connections.
bool holds(const ViewServer& server, std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (server.load().inFlight != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// One worker and one place in the queue: two idle connections take both,
// and then many connections at once are each answered 503 at once instead
// of waiting in a queue that grows; once the idle ones close, requests are
// served again.
TEST(ViewServerConcurrencyTest, ConnectionsBeyondTheBoundAreRefusedNotQueued) {
    TempDir directory;
    const auto known = directory.path() / "known.mvlog";
    writeKnownFile(known);
    ViewOptions options;
    options.files = {known};
    options.token = kToken;
    options.threads = 1;
    options.maxQueued = 1;
    ViewServer server(options);
    server.start();
    const int port = server.port();

    const int served = idleConnection(port);
    ASSERT_TRUE(holds(server, 1)) << server.load().inFlight;
    const int waiting = idleConnection(port);
    ASSERT_TRUE(holds(server, 2)) << server.load().inFlight;

    constexpr int kClients = 40;
    std::vector<Answer> answers(kClients);
    std::vector<std::thread> clients;
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&answers, port, i] { answers[i] = fetch(port, withToken("/api/files")); });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    for (int i = 0; i < kClients; ++i) {
        EXPECT_EQ(answers[i].status, 503) << i;
        EXPECT_EQ(parsed(answers[i]), Json({{"error", "busy: too many connections at once; try again"}}))
            << i;
        EXPECT_EQ(answers[i].header("Retry-After"), "1") << i;
        EXPECT_EQ(answers[i].header("Connection"), "close") << i;
        expectSecurityHeaders(answers[i], "refusal");
    }
    // Answered at once, not after the idle connections' timeouts.
    EXPECT_LT(seconds, 4.0);
    ViewLoad load = server.load();
    EXPECT_EQ(load.inFlight, 2u);
    EXPECT_EQ(load.highWater, 2u);
    EXPECT_EQ(load.refused, static_cast<std::size_t>(kClients));

    ::close(served);
    ::close(waiting);
    ASSERT_TRUE(holds(server, 0)) << server.load().inFlight;
    const Answer again = fetch(port, withToken("/api/files"));
    EXPECT_EQ(again.status, 200) << again.body;
    EXPECT_EQ(parsed(again)[0]["name"], "known.mvlog");
    load = server.load();
    EXPECT_EQ(load.highWater, 2u);
    EXPECT_EQ(load.refused, static_cast<std::size_t>(kClients));
    server.stop();
}

}  // namespace
}  // namespace MvlogTest
