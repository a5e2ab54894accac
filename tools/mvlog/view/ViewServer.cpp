#include "ViewServer.h"

#include "Format.h"
#include "LogFileAccess.h"
#include "ViewPage.h"
#include "ViewedFile.h"

#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <random>

namespace Mvlog {

// The counts behind ViewServer::load(), shared with the task queue that
// httplib owns while it listens.
struct ServerLoad {
    mutable std::mutex mutex;
    ViewLoad counts;
};

using Json = nlohmann::ordered_json;

namespace {

// The most bins of one timeline answer and points of one series answer.
constexpr int64_t kMaxBins = 10000;
constexpr int64_t kMaxPoints = 10000;
constexpr int64_t kDefaultPoints = 2000;
// What a payload preview (a request with `limit`) sends at most.
constexpr int64_t kMaxPreview = 16 * 1024 * 1024;

std::string randomToken() {
    std::random_device device;
    std::string token;
    for (int i = 0; i < 4; ++i) {
        token += fmt::format("{:08x}", device());
    }
    return token;
}

// Equal texts, in a time that does not depend on where they differ.
bool sameText(const std::string& a, const std::string& b) {
    unsigned difference = a.size() == b.size() ? 0u : 1u;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        difference |=
            static_cast<unsigned>(static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]));
    }
    return difference == 0;
}

bool isWildcard(const std::string& address) {
    return address == "0.0.0.0" || address == "::";
}

bool isIpv6(const std::string& address) {
    unsigned char buffer[16];
    return inet_pton(AF_INET6, address.c_str(), buffer) == 1;
}

// An IPv4 address, or an IPv6 one in brackets as a Host header has it.
bool isIpLiteral(const std::string& host) {
    unsigned char buffer[16];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return isIpv6(host.substr(1, host.size() - 2));
    }
    return inet_pton(AF_INET, host.c_str(), buffer) == 1;
}

// An address as a URL or a Host header names it: IPv6 in brackets.
std::string hostPart(const std::string& address) {
    return isIpv6(address) ? "[" + address + "]" : address;
}

// Set on the thread that answers connections beyond the bound: every
// request it reads is answered 503.
thread_local bool tRefusing = false;

// httplib's ThreadPool queues every accepted connection, without bound. This
// one serves at most `threads` connections at once with at most `maxQueued`
// waiting; a connection beyond that goes to one more thread, which answers
// its requests 503 with "Connection: close" (see tRefusing). When even that
// thread has kMaxRefusals waiting, accepting waits: connections then wait in
// the kernel's listen backlog, which is bounded too.
class BoundedTaskQueue : public httplib::TaskQueue {
public:
    BoundedTaskQueue(std::size_t threads, std::size_t maxQueued, std::shared_ptr<ServerLoad> load)
        : limit_(threads + maxQueued), load_(std::move(load)) {
        for (std::size_t i = 0; i < threads; ++i) {
            workers_.emplace_back([this] { work(jobs_, false); });
        }
        workers_.emplace_back([this] { work(refusals_, true); });
    }
    ~BoundedTaskQueue() override { shutdown(); }
    BoundedTaskQueue(const BoundedTaskQueue&) = delete;
    BoundedTaskQueue& operator=(const BoundedTaskQueue&) = delete;

    void enqueue(std::function<void()> job) override {
        std::unique_lock lock(mutex_);
        if (admits()) {
            jobs_.push_back(std::move(job));
        } else {
            room_.wait(lock, [this] { return refusals_.size() < kMaxRefusals || stopping_; });
            refusals_.push_back(std::move(job));
        }
        ready_.notify_all();
    }

    void shutdown() override {
        {
            const std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            stopping_ = true;
        }
        ready_.notify_all();
        for (std::thread& worker : workers_) {
            worker.join();
        }
    }

private:
    static constexpr std::size_t kMaxRefusals = 64;

    // Counts a new connection in when there is room for it.
    bool admits() {
        const std::lock_guard counting(load_->mutex);
        ViewLoad& counts = load_->counts;
        if (counts.inFlight >= limit_) {
            ++counts.refused;
            return false;
        }
        ++counts.inFlight;
        counts.highWater = std::max(counts.highWater, counts.inFlight);
        return true;
    }

    // Runs the jobs of `queue` until shutdown() and the queue is empty.
    void work(std::deque<std::function<void()>>& queue, bool refusing) {
        tRefusing = refusing;
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [&] { return !queue.empty() || stopping_; });
                if (queue.empty()) {
                    return;
                }
                job = std::move(queue.front());
                queue.pop_front();
                room_.notify_all();
            }
            job();
            if (!refusing) {
                const std::lock_guard counting(load_->mutex);
                --load_->counts.inFlight;
            }
        }
    }

    const std::size_t limit_;
    std::shared_ptr<ServerLoad> load_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable room_;
    std::deque<std::function<void()>> jobs_;
    std::deque<std::function<void()>> refusals_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

// Headers every answer carries: nothing is cached, the token never leaves
// in a Referer, and a browser never guesses a type.
void secure(httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("X-Frame-Options", "DENY");
}

void sendJson(httplib::Response& response, int status, const Json& document) {
    response.status = status;
    response.set_content(dumpJson(document), "application/json");
}

void send(httplib::Response& response, const ViewAnswer& answer) {
    for (const auto& [name, value] : answer.headers) {
        response.set_header(name, value);
    }
    if (answer.bytes) {
        response.status = answer.status;
        response.set_content(*answer.bytes, "application/octet-stream");
    } else {
        sendJson(response, answer.status, answer.document);
    }
}

// A request's integer parameter: `fallback` when absent, nullopt when it is
// not an integer in [minimum, maximum].
std::optional<int64_t> integerParameter(const httplib::Request& request, const char* name,
                                        std::optional<int64_t> fallback, int64_t minimum = INT64_MIN,
                                        int64_t maximum = INT64_MAX) {
    if (!request.has_param(name)) {
        return fallback;
    }
    const std::string text = request.get_param_value(name);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < minimum || value > maximum) {
        return std::nullopt;
    }
    return value;
}

struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

int64_t required(const httplib::Request& request, const char* name, int64_t minimum = INT64_MIN,
                 int64_t maximum = INT64_MAX) {
    const auto value = integerParameter(request, name, std::nullopt, minimum, maximum);
    if (!value) {
        throw BadRequest(fmt::format("'{}' must be an integer from {} to {}", name, minimum, maximum));
    }
    return *value;
}

int64_t optional(const httplib::Request& request, const char* name, int64_t fallback, int64_t minimum,
                 int64_t maximum) {
    const auto value = integerParameter(request, name, fallback, minimum, maximum);
    if (!value) {
        throw BadRequest(fmt::format("'{}' must be an integer from {} to {}", name, minimum, maximum));
    }
    return *value;
}

std::optional<int8_t> sourceParameter(const httplib::Request& request) {
    if (!request.has_param("source")) {
        return std::nullopt;
    }
    return static_cast<int8_t>(required(request, "source", INT8_MIN, INT8_MAX));
}

}  // namespace

ViewServer::ViewServer(ViewOptions options) : options_(std::move(options)) {
    if (options_.token.empty()) {
        options_.token = randomToken();
    }
    for (const std::filesystem::path& path : options_.files) {
        files_.push_back(std::make_unique<ViewedFile>(path));
    }
    load_ = std::make_shared<ServerLoad>();
    server_ = std::make_unique<httplib::Server>();
    const std::size_t threads = std::max<std::size_t>(1, options_.threads);
    const std::size_t maxQueued = options_.maxQueued;
    server_->new_task_queue = [threads, maxQueued, load = load_] {
        return new BoundedTaskQueue(threads, maxQueued, load);
    };
    // Requests are GETs: nothing of size comes in.
    server_->set_payload_max_length(4096);
    // Answers are small and the page asks for the next as soon as one
    // arrives: without this, Nagle's algorithm holds each answer's last
    // segment until the browser's delayed acknowledgement, 40 ms a request.
    server_->set_tcp_nodelay(true);
    server_->set_keep_alive_max_count(1000);
    // httplib's default options add SO_REUSEPORT, with which a second
    // server of the same user binds the same port and the kernel shares the
    // connections between the two: a port in use must be refused instead.
    server_->set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    route();
}

ViewServer::~ViewServer() {
    stop();
}

std::string ViewServer::url() const {
    const std::string host = isWildcard(options_.bindAddress) ? "127.0.0.1" : hostPart(options_.bindAddress);
    return fmt::format("http://{}:{}/?token={}", host, port_, options_.token);
}

ViewLoad ViewServer::load() const {
    const std::lock_guard lock(load_->mutex);
    return load_->counts;
}

bool ViewServer::admits(const std::string& host, const std::string& token) const {
    const std::string port = fmt::format(":{}", port_);
    bool knownHost = host == hostPart(options_.bindAddress) + port || host == "localhost" + port;
    if (!knownHost && isWildcard(options_.bindAddress) && host.size() > port.size() &&
        host.compare(host.size() - port.size(), port.size(), port) == 0) {
        // Listening everywhere, the page may be reached by any of this
        // machine's addresses, but never by a name: names are what a
        // rebinding attack controls.
        knownHost = isIpLiteral(host.substr(0, host.size() - port.size()));
    }
    if (!knownHost && options_.bindAddress == "127.0.0.1") {
        knownHost = host == "127.0.0.1" + port;
    }
    return knownHost && sameText(token, options_.token);
}

void ViewServer::route() {
    server_->set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        secure(response);
        if (tRefusing) {
            // Beyond the bound: a quick answer, and the client closes.
            response.set_header("Connection", "close");
            response.set_header("Retry-After", "1");
            sendJson(response, 503, Json{{"error", "busy: too many connections at once; try again"}});
            return httplib::Server::HandlerResponse::Handled;
        }
        const std::string token = request.has_param("token") ? request.get_param_value("token")
                                                             : request.get_header_value("X-Mvlog-Token");
        if (!admits(request.get_header_value("Host"), token)) {
            sendJson(response, 403,
                     Json{{"error", "refused: open the address that mvlog view printed (with its token)"}});
            return httplib::Server::HandlerResponse::Handled;
        }
        if (request.method != "GET" && request.method != "HEAD") {
            sendJson(response, 405, Json{{"error", "only GET"}});
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server_->set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            sendJson(response, response.status,
                     Json{{"error", response.status == 404 ? "not found" : "failed"}});
        }
    });
    server_->set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
            try {
                std::rethrow_exception(failure);
            } catch (const BadRequest& error) {
                sendJson(response, 400, Json{{"error", error.what()}});
            } catch (const std::exception& error) {
                sendJson(response, 500, Json{{"error", error.what()}});
            } catch (...) {
                sendJson(response, 500, Json{{"error", "failed"}});
            }
        });

    server_->Get("/", [](const httplib::Request&, httplib::Response& response) {
        response.set_header("Content-Security-Policy",
                            "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                            "img-src blob: data:; connect-src 'self'; base-uri 'none'; form-action 'none'; "
                            "frame-ancestors 'none'");
        response.set_content(std::string(kViewPage), "text/html; charset=utf-8");
    });

    server_->Get("/api/files", [this](const httplib::Request&, httplib::Response& response) {
        Json list = Json::array();
        for (std::size_t i = 0; i < files_.size(); ++i) {
            const std::string problem = files_[i]->problem();
            list.push_back(Json{{"index", i},
                                {"name", files_[i]->name()},
                                {"entries", files_[i]->entryCount()},
                                {"problem", problem.empty() ? Json() : Json(problem)}});
        }
        sendJson(response, 200, list);
    });
    routeFileApi();
}

void ViewServer::routeFileApi() {
    // Every route below addresses a file by its place in the list: matches[1].
    using Handler = std::function<ViewAnswer(ViewedFile&, const httplib::Request&)>;
    const auto on = [this](const std::string& pattern, Handler handle) {
        server_->Get(
            "/api/files/(\\d{1,9})/" + pattern,
            [this, handle = std::move(handle)](const httplib::Request& request, httplib::Response& response) {
                const std::size_t index = std::stoul(request.matches[1].str());
                if (index >= files_.size()) {
                    sendJson(response, 404, Json{{"error", "no such file"}});
                    return;
                }
                send(response, handle(*files_[index], request));
            });
    };
    on("summary", [](ViewedFile& file, const httplib::Request&) { return file.summary(); });
    on("bins", [](ViewedFile& file, const httplib::Request& request) {
        const int64_t from = required(request, "from");
        const int64_t to = required(request, "to", from, INT64_MAX);
        return file.bins(from, to, static_cast<uint32_t>(required(request, "bins", 1, kMaxBins)));
    });
    on("cursor", [](ViewedFile& file, const httplib::Request& request) {
        return file.cursor(required(request, "at"));
    });
    on("step", [](ViewedFile& file, const httplib::Request& request) {
        const std::string direction = request.get_param_value("direction");
        if (direction != "next" && direction != "previous") {
            throw BadRequest("'direction' must be next or previous");
        }
        return file.step(required(request, "at"), direction == "next", sourceParameter(request));
    });
    on("entries/(\\d{1,10})/payload", [](ViewedFile& file, const httplib::Request& request) {
        const auto id =
            static_cast<int32_t>(std::min<int64_t>(std::stoll(request.matches[2].str()), INT32_MAX));
        return file.payload(id, static_cast<std::size_t>(optional(request, "limit", 0, 0, kMaxPreview)));
    });
    on("fields", [](ViewedFile& file, const httplib::Request& request) {
        return file.fields(static_cast<int8_t>(required(request, "source", INT8_MIN, INT8_MAX)));
    });
    on("series", [](ViewedFile& file, const httplib::Request& request) {
        const auto source = static_cast<int8_t>(required(request, "source", INT8_MIN, INT8_MAX));
        const int64_t from = required(request, "from");
        const int64_t to = required(request, "to", from, INT64_MAX);
        const auto limit = optional(request, "limit", kDefaultPoints, 1, kMaxPoints);
        return file.series(source, request.get_param_value("field"), from, to,
                           static_cast<std::size_t>(limit));
    });
    on("resources/(\\d{1,9})", [](ViewedFile& file, const httplib::Request& request) {
        return file.resource(std::stoul(request.matches[2].str()));
    });
}

void ViewServer::start() {
    port_ = options_.port == 0
                ? server_->bind_to_any_port(options_.bindAddress)
                : (server_->bind_to_port(options_.bindAddress, options_.port) ? options_.port : -1);
    if (port_ <= 0) {
        throw ToolError(fmt::format("view: cannot listen on {}:{}", options_.bindAddress, options_.port));
    }
    listening_ = true;
    thread_ = std::thread([this] {
        server_->listen_after_bind();
        listening_ = false;
    });
    // stop() only ends a server that runs: one asked to stop at once (a
    // SIGTERM right after start) must first be running, or its thread would
    // serve on and never be joined.
    while (listening_ && !server_->is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void ViewServer::stop() {
    if (server_) {
        server_->stop();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace Mvlog
