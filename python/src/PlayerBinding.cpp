#include "Common.h"

#include <logging/LogFilePlayer.h>
#include <logging/PlaybackPacing.h>
#include <logging/PlayerOptions.h>

#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace marivane_python {
namespace {

namespace pb = Marivane::Logging::Playback;

// What the worker thread shares with the controlling thread. The Python
// objects in it are touched only with the GIL held, and the state is released
// by the Player after the worker has been joined.
struct PlayerState {
    py::object callback;
    py::object onError;
    py::object onUnreadable;
    std::size_t frameCount = 0;

    // Guarded by the GIL: the first error nobody handled, raised again by
    // stop() or wait(); after it no more frames reach Python.
    std::optional<py::error_already_set> error;
    std::optional<std::string> unreadable;

    std::mutex mutex;
    std::condition_variable changed;
    bool reachedEnd = false;
    bool failed = false;
    bool closed = false;
    uint64_t delivered = 0;

    // Set when Python code on the worker dropped the last reference to the
    // player: the worker cannot join itself, so another thread destroys the
    // player, and the worker lets go of the Python objects here (it holds
    // the GIL, that thread does not) once the code it is running returns.
    // From then on nothing reaches Python.
    std::atomic<bool> orphaned{false};

    void releasePython() {
        callback = py::object();
        onError = py::object();
        onUnreadable = py::object();
        error.reset();
    }

    void report(py::error_already_set& thrown) {
        if (!onError.is_none()) {
            try {
                onError(thrown.value());
                return;
            } catch (py::error_already_set& fromHandler) {
                keep(fromHandler);
                return;
            }
        }
        keep(thrown);
    }

    void keep(py::error_already_set& thrown) {
        if (!error) {
            error = thrown;
        }
        std::lock_guard<std::mutex> lock(mutex);
        failed = true;
        changed.notify_all();
    }
};

// The players whose callbacks run on this thread, innermost last: a callback
// of one player may drive another, whose callback then runs inside it.
thread_local std::vector<const PlayerState*> deliveringPlayers;

class Delivering {
public:
    explicit Delivering(const PlayerState* state) { deliveringPlayers.push_back(state); }
    ~Delivering() { deliveringPlayers.pop_back(); }
    Delivering(const Delivering&) = delete;
    Delivering& operator=(const Delivering&) = delete;
};

bool isDelivering(const PlayerState* state) {
    return std::find(deliveringPlayers.begin(), deliveringPlayers.end(), state) != deliveringPlayers.end();
}

// A player dropped on its own worker, destroyed on another thread: the
// player first (which joins the worker), then the state its callbacks use.
struct Orphan {
    std::shared_ptr<PlayerState> state;
    std::unique_ptr<pb::LogFilePlayer> player;
};

class Player {
public:
    Player(const std::string& path, py::object callback, const std::vector<int32_t>& sourceTypes, bool loop,
           std::optional<int32_t> maxFrameDelayMs, float speed, pb::Pacing pacing, py::object onError,
           py::object onUnreadable, pb::FrameOrder order)
        : state_(std::make_shared<PlayerState>()) {
        state_->callback = std::move(callback);
        state_->onError = std::move(onError);
        state_->onUnreadable = std::move(onUnreadable);
        std::vector<MV_LogDataSourceType> types;
        for (int32_t type : sourceTypes) {
            types.push_back(static_cast<MV_LogDataSourceType>(type));
        }
        // The worker's callback holds a plain pointer: the state outlives the
        // player (see close()).
        PlayerState* state = state_.get();
        pb::FrameCallback frameCallback = [state](int32_t frame, ml::DataEntry entry) {
            py::gil_scoped_acquire acquire;
            {
                // From here any Python code may run, the garbage collector's
                // included, so the player may be dropped at any point.
                Delivering delivering(state);
                bool failed = false;
                {
                    std::lock_guard<std::mutex> lock(state->mutex);
                    failed = state->failed;
                }
                if (!failed && !state->orphaned) {
                    try {
                        py::object pyEntry =
                            makeEntry(entry.entryId, entry.dataSourceId, entry.type, entry.timestamp,
                                      toBytes(entry.data.data(), entry.data.size()));
                        if (!state->orphaned) {
                            state->callback(frame, std::move(pyEntry));
                        }
                    } catch (py::error_already_set& thrown) {
                        if (!state->orphaned) {
                            state->report(thrown);
                        }
                    }
                }
                if (state->orphaned) {
                    state->releasePython();
                }
            }
            std::lock_guard<std::mutex> lock(state->mutex);
            ++state->delivered;
            if (state->frameCount > 0 && static_cast<std::size_t>(frame) + 1 == state->frameCount) {
                state->reachedEnd = true;
            }
            state->changed.notify_all();
        };
        {
            py::gil_scoped_release release;
            if (order == pb::FrameOrder::Time) {
                // Time order comes with the options' playback: frame 0 first,
                // and a cap on the scaled gap only when one was given.
                pb::PlayerOptions options;
                options.order = order;
                options.pacing = pacing;
                options.loop = loop;
                options.speed = speed;
                if (maxFrameDelayMs) {
                    options.maxFrameDelay = std::chrono::milliseconds(*maxFrameDelayMs);
                }
                player_ = std::make_unique<pb::LogFilePlayer>(std::make_unique<ml::SqliteLogFile>(path),
                                                              types, frameCallback, options);
            } else {
                player_ =
                    std::make_unique<pb::LogFilePlayer>(std::make_unique<ml::SqliteLogFile>(path), types,
                                                        frameCallback, loop, maxFrameDelayMs.value_or(1000));
            }
        }
        state_->frameCount = player_->getFrameCount();
        player_->setPlaybackSpeedMultiplier(speed);
        player_->setPacing(pacing);
        // Without a handler a damaged frame would end the process: Python
        // gets it as an error instead, or through on_unreadable.
        player_->setUnreadableFrameHandler(
            [state](int32_t frame, int32_t entryId, const std::string& reason) {
                py::gil_scoped_acquire acquire;
                Delivering delivering(state);
                if (state->orphaned) {
                    state->releasePython();
                    return;
                }
                if (!state->onUnreadable.is_none()) {
                    try {
                        state->onUnreadable(frame, entryId, reason);
                    } catch (py::error_already_set& thrown) {
                        if (!state->orphaned) {
                            state->report(thrown);
                        }
                    }
                    if (state->orphaned) {
                        state->releasePython();
                    }
                    return;
                }
                if (!state->unreadable) {
                    state->unreadable = "Frame " + std::to_string(frame) + " (entry " +
                                        std::to_string(entryId) + ") cannot be read: " + reason;
                }
            });
    }

    ~Player() {
        if (player_ && isDelivering(state_.get())) {
            // Dropped by Python code that one of its callbacks runs, on the
            // worker: the worker goes on once that code returns, and is
            // joined by a thread of its own.
            state_->orphaned = true;
            auto* orphan = new Orphan{state_, std::move(player_)};
            try {
                std::thread([orphan] { delete orphan; }).detach();
            } catch (...) {
                // Without a thread to join the worker, the player is left to
                // the process rather than ending it.
            }
            return;
        }
        closeNow();
    }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // The methods of the thread that controls the player: stop and close
    // join the worker, and the others stop it or wait for it, so none of
    // them can run in a callback.
    void refuseInCallback(const char* what) const {
        if (isDelivering(state_.get())) {
            raiseRuntimeError(std::string("Player.") + what +
                              " cannot be used from the player's own callback; use it from the thread "
                              "that controls the player.");
        }
    }

    void close() {
        refuseInCallback("close()");
        closeNow();
    }

    void closeNow() {
        if (!player_) {
            return;
        }
        // Taken with the GIL, so that every later call sees the player closed;
        // destroyed once the controlling calls of other threads are done.
        std::unique_ptr<pb::LogFilePlayer> closing = std::move(player_);
        closed_ = true;
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            state_->closed = true;
        }
        state_->changed.notify_all();
        // Joining the worker while it waits for the GIL would deadlock.
        if (PyGILState_Check()) {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(controlMutex_);
            closing.reset();
        } else {
            std::lock_guard<std::mutex> lock(controlMutex_);
            closing.reset();
        }
    }

    pb::LogFilePlayer& player() {
        if (!player_) {
            throw py::value_error("The player is closed.");
        }
        return *player_;
    }

    // Runs a controlling call on the player without the GIL. Python threads
    // may share a player, while the library's player takes its controlling
    // calls from one thread at a time: they take turns here, and close()
    // waits for the one under way.
    template <typename Operation>
    int64_t control(const char* what, Operation&& operation) {
        refuseInCallback(what);
        pb::LogFilePlayer* p = &player();
        bool closed = false;
        int64_t result = 0;
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(controlMutex_);
            closed = closed_;
            if (!closed) {
                result = operation(*p);
            }
        }
        if (closed) {
            throw py::value_error("The player is closed.");
        }
        return result;
    }

    void play() {
        refuseInCallback("play()");
        player();
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            state_->reachedEnd = false;
        }
        control("play()", [](pb::LogFilePlayer& p) {
            p.play();
            return 0;
        });
    }

    void stop() {
        control("stop()", [](pb::LogFilePlayer& p) {
            p.stop();
            return 0;
        });
        raisePending();
    }

    // Raises the error kept from the callback, once.
    void raisePending() {
        if (state_->error) {
            py::error_already_set error = std::move(*state_->error);
            state_->error.reset();
            {
                std::lock_guard<std::mutex> lock(state_->mutex);
                state_->failed = false;
            }
            throw error;
        }
        if (state_->unreadable) {
            std::string message = std::move(*state_->unreadable);
            state_->unreadable.reset();
            raiseError("DamagedError", message);
        }
    }

    bool wait(std::optional<double> timeoutSeconds) {
        refuseInCallback("wait()");
        player();
        bool done = false;
        bool closed = false;
        {
            py::gil_scoped_release release;
            std::unique_lock<std::mutex> lock(state_->mutex);
            auto finished = [this] {
                return state_->reachedEnd || state_->failed || state_->frameCount == 0 || state_->closed;
            };
            if (timeoutSeconds) {
                done =
                    state_->changed.wait_for(lock, std::chrono::duration<double>(*timeoutSeconds), finished);
            } else {
                state_->changed.wait(lock, finished);
                done = true;
            }
            // Closed by another thread before the end: nothing more comes.
            closed = done && !(state_->reachedEnd || state_->failed || state_->frameCount == 0);
        }
        if (closed) {
            throw py::value_error("The player is closed.");
        }
        if (done && state_->error) {
            // The worker goes on delivering to nobody: stop it before raising.
            control("wait()", [](pb::LogFilePlayer& p) {
                p.stop();
                return 0;
            });
        }
        raisePending();
        return done;
    }

    void seek(int32_t frame) {
        control("seek()", [frame](pb::LogFilePlayer& p) {
            p.seek(frame, {});
            return 0;
        });
        raisePending();
    }

    int32_t seekToTime(int64_t timestamp) {
        const auto frame = static_cast<int32_t>(control(
            "seek_to_time()", [timestamp](pb::LogFilePlayer& p) { return p.seekToTime(timestamp, {}); }));
        raisePending();
        return frame;
    }

    int32_t totalPlayTime() {
        return static_cast<int32_t>(
            control("total_play_time_ms", [](pb::LogFilePlayer& p) { return p.getTotalPlayTime(); }));
    }

    uint64_t delivered() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->delivered;
    }

    // The bookmark list is rebuilt by every edit, which runs without the GIL
    // while a callback may be reading the list: a copy is read, and only
    // between edits.
    std::vector<pb::PlayerBookmark> bookmarks() {
        auto& p = player();
        std::lock_guard<std::mutex> lock(bookmarksMutex_);
        return p.getBookmarks();
    }

    template <typename Edit>
    void editBookmarks(const char* what, Edit&& edit) {
        control(what, [&](pb::LogFilePlayer& p) {
            std::lock_guard<std::mutex> lock(bookmarksMutex_);
            edit(p);
            return 0;
        });
    }

    std::shared_ptr<PlayerState> state_;
    std::unique_ptr<pb::LogFilePlayer> player_;
    std::mutex controlMutex_;
    std::atomic<bool> closed_{false};
    std::mutex bookmarksMutex_;
};

}  // namespace

void bindPlayer(py::module_& m) {
    py::enum_<pb::Pacing>(m, "Pacing", "How a player spaces its frames.")
        .value("CARRY_MILLISECONDS", pb::Pacing::CarryMilliseconds,
               "Gap divided by the speed, in whole milliseconds, less the previous lateness.")
        .value("EXACT", pb::Pacing::Exact, "Frames due on an absolute timeline: no drift.");

    py::enum_<pb::FrameOrder>(m, "FrameOrder", "The order in which a player plays its frames.")
        .value("ID", pb::FrameOrder::Id, "Ascending entry id: the order the entries were written in.")
        .value("TIME", pb::FrameOrder::Time, "Ascending timestamp, equal timestamps by ascending id.");

    py::class_<Player>(m, "_Player", "The native player; use marivane_logging.Player instead.")
        .def(py::init<const std::string&, py::object, const std::vector<int32_t>&, bool,
                      std::optional<int32_t>, float, pb::Pacing, py::object, py::object, pb::FrameOrder>(),
             py::arg("path"), py::arg("callback"), py::arg("source_types"), py::arg("loop"),
             py::arg("max_frame_delay_ms"), py::arg("speed"), py::arg("pacing"), py::arg("on_error"),
             py::arg("on_unreadable"), py::arg("order") = pb::FrameOrder::Id)
        .def("play", &Player::play)
        .def("stop", &Player::stop)
        .def("close", &Player::close)
        .def("wait", &Player::wait, py::arg("timeout") = py::none())
        .def("seek", &Player::seek, py::arg("frame"))
        .def("seek_to_time", &Player::seekToTime, py::arg("timestamp"))
        .def("total_play_time_ms", &Player::totalPlayTime)
        .def_property_readonly("delivered", &Player::delivered)
        .def_property_readonly("order", [](Player& self) { return self.player().getFrameOrder(); })
        .def_property_readonly("frame_count", [](Player& self) { return self.player().getFrameCount(); })
        .def_property_readonly(
            "data_sources",
            [](Player& self) {
                // A copy: making the tuples may run Python code, which may close the player.
                const std::vector<ml::DataSource> sources = self.player().getDataSources();
                py::list result;
                for (const auto& source : sources) {
                    result.append(py::make_tuple(static_cast<int>(source.id), static_cast<int>(source.type),
                                                 source.name));
                }
                return result;
            })
        .def_property_readonly("bookmarks",
                               [](Player& self) {
                                   py::list result;
                                   for (const auto& bookmark : self.bookmarks()) {
                                       result.append(py::make_tuple(bookmark.entryId, bookmark.title,
                                                                    bookmark.comments, bookmark.frame));
                                   }
                                   return result;
                               })
        .def("set_loop", [](Player& self, bool loop) { self.player().setLoopPlayback(loop); })
        .def("set_speed", [](Player& self, float speed) { self.player().setPlaybackSpeedMultiplier(speed); })
        .def("set_pacing",
             [](Player& self, pb::Pacing pacing) {
                 self.refuseInCallback("set_pacing()");
                 self.player().setPacing(pacing);
             })
        .def("add_bookmark",
             [](Player& self, int32_t entryId, const std::string& title, const std::string& comments) {
                 self.editBookmarks("add_bookmark()",
                                    [&](pb::LogFilePlayer& p) { p.addBookmark(entryId, title, comments); });
             })
        .def("update_bookmark",
             [](Player& self, int32_t entryId, const std::string& title, const std::string& comments) {
                 self.editBookmarks("update_bookmark()", [&](pb::LogFilePlayer& p) {
                     p.updateBookmark(entryId, title, comments);
                 });
             })
        .def("remove_bookmark", [](Player& self, int32_t entryId) {
            self.editBookmarks("remove_bookmark()", [&](pb::LogFilePlayer& p) { p.removeBookmark(entryId); });
        });
}

}  // namespace marivane_python
