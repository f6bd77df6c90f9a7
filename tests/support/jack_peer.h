#pragma once
// A real JACK server for tests and a second client that talks to the program's ports: the dummy backend
// under a name of this test's own, started and stopped by its process id (also when a test fails).

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

struct _jack_client;
struct _jack_port;

namespace jacktest {

class Server {
public:
    // Starts `jackd` with the dummy backend at `rate` and `period` and makes it this process's default
    // server (JACK_DEFAULT_SERVER). For tests the server waits for its clients (sync mode, long time-out),
    // so that a slow sanitizer build sees every block in order rather than a dropped one; `live` runs it
    // as a user would, in real time, where a late client is an xrun.
    Server(int32_t rate = 48000, int32_t period = 256, bool live = false);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool ready() const { return ready_; }
    const std::string& name() const { return name_; }
    void stop();

private:
    std::string name_;
    pid_t pid_ = -1;
    bool ready_ = false;
};

// A client with `audioInputs` capture ports (in_1...) and one MIDI port each way (midi_out, midi_in).
class Peer {
public:
    Peer(const char* name, int32_t audioInputs, int64_t captureFrames);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool ok() const { return client_ != nullptr; }
    bool connect(const std::string& source, const std::string& destination);
    bool connected(const std::string& source, const std::string& destination) const;
    std::string portName(const char* shortName) const;
    // The message goes out at frame 0 of the next cycle.
    void sendMidi(uint32_t message);
    // The frame time of the cycle that sent the last message, -1 until it went out.
    int64_t sentAt() const { return sentAt_.load(std::memory_order_acquire); }
    // Waits until `frames` have been captured or `seconds` ran out.
    bool waitFrames(int64_t frames, double seconds) const;
    // Captured samples of one input and the frame time of the first of them.
    std::vector<float> captured(int32_t input) const;
    int64_t firstFrame() const { return firstFrame_.load(std::memory_order_acquire); }
    int64_t capturedFrames() const { return count_.load(std::memory_order_acquire); }

    struct MidiHeard {
        int64_t frame;  // frame time
        uint32_t midi;
    };
    static constexpr int32_t maxMidiHeard = 256;
    // What arrived on midi_in so far.
    std::vector<MidiHeard> midiHeard() const;

private:
    static int process(uint32_t frames, void* self);

    _jack_client* client_ = nullptr;
    std::vector<_jack_port*> inputs_;
    _jack_port* midiOut_ = nullptr;
    _jack_port* midiIn_ = nullptr;
    MidiHeard heard_[maxMidiHeard]{};
    std::atomic<int32_t> heardCount_{0};
    std::vector<std::vector<float>> capture_;
    std::atomic<int64_t> count_{0};
    std::atomic<int64_t> firstFrame_{-1};
    std::atomic<uint32_t> pending_{0};
    std::atomic<int64_t> sentAt_{-1};
};

}  // namespace jacktest
