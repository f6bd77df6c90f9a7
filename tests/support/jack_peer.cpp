#include "support/jack_peer.h"

#include <jack/jack.h>
#include <jack/midiport.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace jacktest {

namespace {

using Clock = std::chrono::steady_clock;

// The program's path along PATH, empty when it is nowhere.
std::string findProgram(const char* name) {
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= folders.size();) {
        const size_t end = std::min(folders.find(':', start), folders.size());
        const std::string candidate = folders.substr(start, end - start) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

bool exited(pid_t pid, double seconds) {
    const auto until = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < until) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

}  // namespace

// The program's JACK client and the test's clients share this process, and JACK orders their process
// callbacks through its own shared-memory semaphores, which ThreadSanitizer does not see: the port
// buffers that pass from one client to the next look unsynchronised to it. Every such pair has the test's
// client on one side: its own reads, or the library's copy of the MIDI it sends.
extern "C" const char* __tsan_default_suppressions() {
    return "race:jacktest::Peer::process\n"
           "race:jack_midi_event_write\n";
}

Server::Server(int32_t rate, int32_t period, bool live) {
    // The library's complaints while the server is still coming up are expected; keep them quiet.
    jack_set_error_function([](const char*) {});
    jack_set_info_function([](const char*) {});
    static std::atomic<int32_t> counter{0};
    name_ = "vt" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
    setenv("JACK_NO_START_SERVER", "1", 1);
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    const std::string rateText = std::to_string(rate), periodText = std::to_string(period);
    std::vector<std::string> args = {"jackd", "-n", name_};
    if (live) args.insert(args.end(), {"--realtime"});
    else args.insert(args.end(), {"--no-realtime", "-S", "-t", "20000"});
    args.insert(args.end(), {"-d", "dummy", "-r", rateText, "-p", periodText, "-C", "2", "-P", "2"});
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string program = findProgram("jackd");
    if (program.empty()) return;
    pid_ = fork();
    if (pid_ == 0) {
        // The server goes with the test, also when the test dies without running its destructors.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int quiet = open("/dev/null", O_WRONLY);
        dup2(quiet, 1);
        dup2(quiet, 2);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    if (pid_ < 0) return;
    // Start-up on a loaded machine under sanitizers can take a while.
    const auto until = Clock::now() + std::chrono::seconds(60);
    while (Clock::now() < until) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        jack_status_t jackStatus{};
        if (jack_client_t* probe = jack_client_open("probe", JackNoStartServer, &jackStatus)) {
            jack_client_close(probe);
            ready_ = true;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

Server::~Server() { stop(); }

void Server::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    if (!exited(pid_, 15.0)) {
        kill(pid_, SIGKILL);
        exited(pid_, 15.0);
    }
    pid_ = -1;
    ready_ = false;
}

Peer::Peer(const char* name, int32_t audioInputs, int64_t captureFrames) {
    jack_status_t status{};
    client_ = jack_client_open(name, JackNoStartServer, &status);
    if (!client_) return;
    for (int32_t i = 0; i < audioInputs; ++i) {
        const std::string port = "in_" + std::to_string(i + 1);
        inputs_.push_back(jack_port_register(client_, port.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0));
        capture_.emplace_back(static_cast<size_t>(captureFrames), 0.0f);
    }
    midiOut_ = jack_port_register(client_, "midi_out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    midiIn_ = jack_port_register(client_, "midi_in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    jack_set_process_callback(client_, &Peer::process, this);
    if (jack_activate(client_) != 0) {
        jack_client_close(client_);
        client_ = nullptr;
    }
}

Peer::~Peer() {
    if (!client_) return;
    jack_deactivate(client_);
    jack_client_close(client_);
}

bool Peer::connect(const std::string& source, const std::string& destination) {
    return client_ && jack_connect(client_, source.c_str(), destination.c_str()) == 0;
}

bool Peer::connected(const std::string& source, const std::string& destination) const {
    jack_port_t* port = client_ ? jack_port_by_name(client_, source.c_str()) : nullptr;
    return port && jack_port_connected_to(port, destination.c_str());
}

std::string Peer::portName(const char* shortName) const {
    return std::string(jack_get_client_name(client_)) + ":" + shortName;
}

void Peer::sendMidi(uint32_t message) {
    sentAt_.store(-1, std::memory_order_release);
    pending_.store(message, std::memory_order_release);
}

bool Peer::waitFrames(int64_t frames, double seconds) const {
    const auto until = Clock::now() + std::chrono::duration<double>(seconds);
    while (capturedFrames() < frames) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::vector<float> Peer::captured(int32_t input) const {
    const auto& all = capture_[static_cast<size_t>(input)];
    return {all.begin(), all.begin() + std::min<int64_t>(capturedFrames(), static_cast<int64_t>(all.size()))};
}

std::vector<Peer::MidiHeard> Peer::midiHeard() const {
    return {heard_, heard_ + heardCount_.load(std::memory_order_acquire)};
}

int Peer::process(uint32_t frames, void* self) {
    auto* peer = static_cast<Peer*>(self);
    const auto now = static_cast<int64_t>(jack_last_frame_time(peer->client_));
    void* midi = jack_port_get_buffer(peer->midiOut_, frames);
    jack_midi_clear_buffer(midi);
    if (const uint32_t message = peer->pending_.exchange(0, std::memory_order_acq_rel)) {
        const jack_midi_data_t bytes[3] = {static_cast<jack_midi_data_t>(message & 0xFF),
                                           static_cast<jack_midi_data_t>((message >> 8) & 0xFF),
                                           static_cast<jack_midi_data_t>((message >> 16) & 0xFF)};
        const size_t size = (message & 0xFF) >= 0xF8 ? 1 : 3;
        jack_midi_event_write(midi, 0, bytes, size);
        peer->sentAt_.store(now, std::memory_order_release);
    }
    void* midiIn = jack_port_get_buffer(peer->midiIn_, frames);
    for (uint32_t i = 0, n = jack_midi_get_event_count(midiIn); i < n; ++i) {
        jack_midi_event_t event;
        const int32_t at = peer->heardCount_.load(std::memory_order_relaxed);
        if (jack_midi_event_get(&event, midiIn, i) != 0 || at >= maxMidiHeard) continue;
        uint32_t message = 0;
        for (size_t b = 0; b < std::min<size_t>(event.size, 3); ++b) message |= static_cast<uint32_t>(event.buffer[b]) << (8 * b);
        peer->heard_[at] = {now + event.time, message};
        peer->heardCount_.store(at + 1, std::memory_order_release);
    }
    if (peer->inputs_.empty()) return 0;
    const int64_t at = peer->count_.load(std::memory_order_relaxed);
    const auto room = static_cast<int64_t>(peer->capture_[0].size()) - at;
    const int64_t n = std::min<int64_t>(frames, room);
    if (n <= 0) return 0;
    if (at == 0) peer->firstFrame_.store(now, std::memory_order_release);
    for (size_t i = 0; i < peer->inputs_.size(); ++i) {
        const auto* in = static_cast<const float*>(jack_port_get_buffer(peer->inputs_[i], frames));
        std::copy_n(in, n, peer->capture_[i].begin() + at);
    }
    peer->count_.store(at + n, std::memory_order_release);
    return 0;
}

}  // namespace jacktest
