#include "Common.h"

#include <logging/LogFilePlayer.h>
#include <logging/PlaybackPacing.h>

#include <pybind11/stl.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

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
    uint64_t delivered = 0;

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

class Player {
public:
    Player(const std::string& path, py::object callback, const std::vector<int32_t>& sourceTypes, bool loop,
           int32_t maxFrameDelayMs, float speed, pb::Pacing pacing, py::object onError,
           py::object onUnreadable)
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
            bool failed = false;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                failed = state->failed;
            }
            if (!failed) {
                try {
                    state->callback(frame,
                                    makeEntry(entry.entryId, entry.dataSourceId, entry.type, entry.timestamp,
                                              toBytes(entry.data.data(), entry.data.size())));
                } catch (py::error_already_set& thrown) {
                    state->report(thrown);
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
            player_ = std::make_unique<pb::LogFilePlayer>(std::make_unique<ml::SqliteLogFile>(path), types,
                                                          frameCallback, loop, maxFrameDelayMs);
        }
        state_->frameCount = player_->getFrameCount();
        player_->setPlaybackSpeedMultiplier(speed);
        player_->setPacing(pacing);
        // Without a handler a damaged frame would end the process: Python
        // gets it as an error instead, or through on_unreadable.
        player_->setUnreadableFrameHandler(
            [state](int32_t frame, int32_t entryId, const std::string& reason) {
                py::gil_scoped_acquire acquire;
                if (!state->onUnreadable.is_none()) {
                    try {
                        state->onUnreadable(frame, entryId, reason);
                    } catch (py::error_already_set& thrown) {
                        state->report(thrown);
                    }
                    return;
                }
                if (!state->unreadable) {
                    state->unreadable = "Frame " + std::to_string(frame) + " (entry " +
                                        std::to_string(entryId) + ") cannot be read: " + reason;
                }
            });
    }

    ~Player() { close(); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void close() {
        if (!player_) {
            return;
        }
        // Joining the worker while it waits for the GIL would deadlock.
        if (PyGILState_Check()) {
            py::gil_scoped_release release;
            player_.reset();
        } else {
            player_.reset();
        }
    }

    pb::LogFilePlayer& player() {
        if (!player_) {
            throw py::value_error("The player is closed.");
        }
        return *player_;
    }

    void play() {
        auto& p = player();
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            state_->reachedEnd = false;
        }
        py::gil_scoped_release release;
        p.play();
    }

    void stop() {
        auto& p = player();
        {
            py::gil_scoped_release release;
            p.stop();
        }
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
        player();
        bool done = false;
        {
            py::gil_scoped_release release;
            std::unique_lock<std::mutex> lock(state_->mutex);
            auto finished = [this] {
                return state_->reachedEnd || state_->failed || state_->frameCount == 0;
            };
            if (timeoutSeconds) {
                done =
                    state_->changed.wait_for(lock, std::chrono::duration<double>(*timeoutSeconds), finished);
            } else {
                state_->changed.wait(lock, finished);
                done = true;
            }
        }
        if (done && state_->error) {
            // The worker goes on delivering to nobody: stop it before raising.
            py::gil_scoped_release release;
            player_->stop();
        }
        raisePending();
        return done;
    }

    void seek(int32_t frame) {
        auto& p = player();
        {
            py::gil_scoped_release release;
            p.seek(frame, {});
        }
        raisePending();
    }

    int32_t seekToTime(int64_t timestamp) {
        auto& p = player();
        int32_t frame = 0;
        {
            py::gil_scoped_release release;
            frame = p.seekToTime(timestamp, {});
        }
        raisePending();
        return frame;
    }

    int32_t totalPlayTime() {
        auto& p = player();
        py::gil_scoped_release release;
        return p.getTotalPlayTime();
    }

    uint64_t delivered() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->delivered;
    }

    std::shared_ptr<PlayerState> state_;
    std::unique_ptr<pb::LogFilePlayer> player_;
};

}  // namespace

void bindPlayer(py::module_& m) {
    py::enum_<pb::Pacing>(m, "Pacing", "How a player spaces its frames.")
        .value("CARRY_MILLISECONDS", pb::Pacing::CarryMilliseconds,
               "Gap divided by the speed, in whole milliseconds, less the previous lateness.")
        .value("EXACT", pb::Pacing::Exact, "Frames due on an absolute timeline: no drift.");

    py::class_<Player>(m, "_Player", "The native player; use marivane_logging.Player instead.")
        .def(py::init<const std::string&, py::object, const std::vector<int32_t>&, bool, int32_t, float,
                      pb::Pacing, py::object, py::object>(),
             py::arg("path"), py::arg("callback"), py::arg("source_types"), py::arg("loop"),
             py::arg("max_frame_delay_ms"), py::arg("speed"), py::arg("pacing"), py::arg("on_error"),
             py::arg("on_unreadable"))
        .def("play", &Player::play)
        .def("stop", &Player::stop)
        .def("close", &Player::close)
        .def("wait", &Player::wait, py::arg("timeout") = py::none())
        .def("seek", &Player::seek, py::arg("frame"))
        .def("seek_to_time", &Player::seekToTime, py::arg("timestamp"))
        .def("total_play_time_ms", &Player::totalPlayTime)
        .def_property_readonly("delivered", &Player::delivered)
        .def_property_readonly("frame_count", [](Player& self) { return self.player().getFrameCount(); })
        .def_property_readonly(
            "data_sources",
            [](Player& self) {
                py::list result;
                for (const auto& source : self.player().getDataSources()) {
                    result.append(py::make_tuple(static_cast<int>(source.id), static_cast<int>(source.type),
                                                 source.name));
                }
                return result;
            })
        .def_property_readonly("bookmarks",
                               [](Player& self) {
                                   py::list result;
                                   for (const auto& bookmark : self.player().getBookmarks()) {
                                       result.append(py::make_tuple(bookmark.entryId, bookmark.title,
                                                                    bookmark.comments, bookmark.frame));
                                   }
                                   return result;
                               })
        .def("set_loop", [](Player& self, bool loop) { self.player().setLoopPlayback(loop); })
        .def("set_speed", [](Player& self, float speed) { self.player().setPlaybackSpeedMultiplier(speed); })
        .def("set_pacing", [](Player& self, pb::Pacing pacing) { self.player().setPacing(pacing); })
        .def("add_bookmark",
             [](Player& self, int32_t entryId, const std::string& title, const std::string& comments) {
                 auto& p = self.player();
                 py::gil_scoped_release release;
                 p.addBookmark(entryId, title, comments);
             })
        .def("update_bookmark",
             [](Player& self, int32_t entryId, const std::string& title, const std::string& comments) {
                 auto& p = self.player();
                 py::gil_scoped_release release;
                 p.updateBookmark(entryId, title, comments);
             })
        .def("remove_bookmark", [](Player& self, int32_t entryId) {
            auto& p = self.player();
            py::gil_scoped_release release;
            p.removeBookmark(entryId);
        });
}

}  // namespace marivane_python
