#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace Mvlog {

class ViewedFile;
struct ServerLoad;

// What `mvlog view` serves, and how.
struct ViewOptions {
    std::vector<std::filesystem::path> files;
    // 127.0.0.1 unless asked otherwise; another address is the caller's
    // explicit choice.
    std::string bindAddress = "127.0.0.1";
    // 0: any free port.
    int port = 0;
    // Required on every request; empty: a random one.
    std::string token;
    // Connections served at once; more wait for a worker.
    std::size_t threads = 8;
    // Connections that may wait for a worker; beyond that, a connection's
    // requests are answered 503 at once (by one thread kept for that), so
    // that a flood of connections never grows a queue without bound.
    std::size_t maxQueued = 64;
};

// How many connections the server holds, for tests and diagnostics.
struct ViewLoad {
    // Connections being served or waiting for a worker.
    std::size_t inFlight = 0;
    // The most of them at once since the start.
    std::size_t highWater = 0;
    // Connections answered 503 because every worker was busy and the queue
    // full.
    std::size_t refused = 0;
};

// The web page of `mvlog view` and the data behind it, over HTTP.
//
// Every request must carry the token (query "token" or header
// "X-Mvlog-Token") and a Host header that names the bound address (an IPv6
// address in brackets: "[::1]:PORT") or localhost, and the port: a page of
// another site that resolves its own name to this address gets 403. Files
// are addressed by their place on the command line, never by a path from a
// request, and opened read-only. Every answer is bounded: timelines in at
// most 10,000 bins, series in at most 10,000 points, payload previews cut at
// a limit. Texts from the files reach the page only inside JSON, which the
// page puts in the document as text.
//
// Owns the files and the server's threads, which stop() (or destruction)
// joins.
class ViewServer {
public:
    // Opens every file read-only; a file that cannot be opened is kept with
    // the reason, which the page shows.
    explicit ViewServer(ViewOptions options);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Binds and serves on a thread of its own; throws ToolError when the
    // address cannot be bound.
    void start();
    void stop();

    int port() const { return port_; }
    const std::string& token() const { return options_.token; }
    // The address to open: http://HOST:PORT/?token=... (an IPv6 address in
    // brackets).
    std::string url() const;
    ViewLoad load() const;

private:
    void route();
    bool admits(const std::string& host, const std::string& token) const;
    void routeFileApi();

    ViewOptions options_;
    std::vector<std::unique_ptr<ViewedFile>> files_;
    std::shared_ptr<ServerLoad> load_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    std::atomic<bool> listening_{false};
    int port_ = 0;
};

}  // namespace Mvlog
