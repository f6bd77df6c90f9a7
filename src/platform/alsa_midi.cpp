// MIDI devices through the ALSA sequencer: our client has one port each way; opening a device
// subscribes that port to the other client's port. A reader thread hands each channel message to the
// host, tagged with the device it came from.

#include <alsa/asoundlib.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/drivers.h"
#include "platform/platform.h"

namespace platform {

namespace {

constexpr const char* sequencerNode = "/dev/snd/seq";

struct SeqPort {
    std::string name;
    snd_seq_addr_t address{};
};

class NoMidi final : public MidiSystem {
public:
    std::vector<std::string> inputs() const override { return {}; }
    std::vector<std::string> outputs() const override { return {}; }
    bool openInput(int32_t, int32_t, AudioHost&) override { return false; }
    void closeInput(int32_t) override {}
    bool openOutput(int32_t) override { return false; }
    void closeOutput(int32_t) override {}
    void send(int32_t, std::span<const MidiRecord>) override {}
};

class AlsaMidi final : public MidiSystem {
public:
    explicit AlsaMidi(snd_seq_t* seq) : seq_(seq) {
        snd_seq_set_client_name(seq_, "Vantrell");
        inPort_ = snd_seq_create_simple_port(seq_, "MIDI In", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                             SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        outPort_ = snd_seq_create_simple_port(seq_, "MIDI Out", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                              SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        snd_midi_event_new(256, &decoder_);
        snd_midi_event_new(16, &encoder_);
        snd_midi_event_no_status(decoder_, 1);
        listPorts();
        sourceDevices_ = std::make_unique<std::atomic<int32_t>[]>(sources_.size());
        for (size_t i = 0; i < sources_.size(); ++i) sourceDevices_[i].store(-1);
        if (!reader_.start(&AlsaMidi::run, this)) debugLine("alsa midi: no reader thread, MIDI input is off");
    }

    ~AlsaMidi() override {
        quit_.store(true);
        reader_.join();
        snd_midi_event_free(decoder_);
        snd_midi_event_free(encoder_);
        snd_seq_close(seq_);
    }

    std::vector<std::string> inputs() const override { return names(sources_); }
    std::vector<std::string> outputs() const override { return names(destinations_); }

    bool openInput(int32_t index, int32_t device, AudioHost& host) override {
        if (!valid(sources_, index)) return false;
        SeqPort& port = sources_[static_cast<size_t>(index)];
        if (snd_seq_connect_from(seq_, inPort_, port.address.client, port.address.port) < 0) return false;
        host_.store(&host);
        sourceDevices_[static_cast<size_t>(index)].store(device);
        return true;
    }

    void closeInput(int32_t index) override {
        if (!valid(sources_, index)) return;
        SeqPort& port = sources_[static_cast<size_t>(index)];
        snd_seq_disconnect_from(seq_, inPort_, port.address.client, port.address.port);
        sourceDevices_[static_cast<size_t>(index)].store(-1);
    }

    bool openOutput(int32_t index) override {
        if (!valid(destinations_, index)) return false;
        const SeqPort& port = destinations_[static_cast<size_t>(index)];
        return snd_seq_connect_to(seq_, outPort_, port.address.client, port.address.port) >= 0;
    }

    void closeOutput(int32_t index) override {
        if (!valid(destinations_, index)) return;
        const SeqPort& port = destinations_[static_cast<size_t>(index)];
        snd_seq_disconnect_to(seq_, outPort_, port.address.client, port.address.port);
    }

    void send(int32_t index, std::span<const MidiRecord> records) override {
        if (!valid(destinations_, index)) return;
        const snd_seq_addr_t to = destinations_[static_cast<size_t>(index)].address;
        for (const MidiRecord& record : records) {
            const unsigned char bytes[3] = {static_cast<unsigned char>(record.midi & 0xFF),
                                            static_cast<unsigned char>((record.midi >> 8) & 0x7F),
                                            static_cast<unsigned char>((record.midi >> 16) & 0x7F)};
            snd_seq_event_t event;
            snd_seq_ev_clear(&event);
            snd_midi_event_reset_encode(encoder_);
            if (snd_midi_event_encode(encoder_, bytes, 3, &event) <= 0 || event.type == SND_SEQ_EVENT_NONE) continue;
            snd_seq_ev_set_source(&event, outPort_);
            snd_seq_ev_set_dest(&event, to.client, to.port);
            snd_seq_ev_set_direct(&event);
            snd_seq_event_output_direct(seq_, &event);
        }
    }

private:
    static std::vector<std::string> names(const std::vector<SeqPort>& ports) {
        std::vector<std::string> list;
        for (const SeqPort& port : ports) list.push_back(port.name);
        return list;
    }

    static bool valid(const std::vector<SeqPort>& ports, int32_t index) {
        return index >= 0 && index < static_cast<int32_t>(ports.size());
    }

    void listPorts() {
        snd_seq_client_info_t* client = nullptr;
        snd_seq_port_info_t* port = nullptr;
        snd_seq_client_info_alloca(&client);
        snd_seq_port_info_alloca(&port);
        const int self = snd_seq_client_id(seq_);
        snd_seq_client_info_set_client(client, -1);
        while (snd_seq_query_next_client(seq_, client) >= 0) {
            const int id = snd_seq_client_info_get_client(client);
            if (id == self || id == SND_SEQ_CLIENT_SYSTEM) continue;
            snd_seq_port_info_set_client(port, id);
            snd_seq_port_info_set_port(port, -1);
            while (snd_seq_query_next_port(seq_, port) >= 0) {
                const unsigned int caps = snd_seq_port_info_get_capability(port);
                if (caps & SND_SEQ_PORT_CAP_NO_EXPORT) continue;
                SeqPort entry{std::string(snd_seq_client_info_get_name(client)) + ": " + snd_seq_port_info_get_name(port),
                              *snd_seq_port_info_get_addr(port)};
                constexpr unsigned int readable = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
                constexpr unsigned int writable = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;
                if ((caps & readable) == readable) sources_.push_back(entry);
                if ((caps & writable) == writable) destinations_.push_back(entry);
            }
        }
    }

    static void run(void* self) { static_cast<AlsaMidi*>(self)->read(); }

    void read() {
        const int count = snd_seq_poll_descriptors_count(seq_, POLLIN);
        std::vector<pollfd> fds(static_cast<size_t>(count));
        snd_seq_poll_descriptors(seq_, fds.data(), static_cast<unsigned int>(count), POLLIN);
        while (!quit_.load()) {
            if (poll(fds.data(), fds.size(), 100) <= 0) continue;
            snd_seq_event_t* event = nullptr;
            while (snd_seq_event_input(seq_, &event) >= 0 && event) {
                unsigned char bytes[8]{};
                snd_midi_event_reset_decode(decoder_);
                const long size = snd_midi_event_decode(decoder_, bytes, sizeof bytes, event);
                if (size < 1 || size > 3) continue;
                uint32_t message = 0;
                for (long i = 0; i < size; ++i) message |= static_cast<uint32_t>(bytes[i]) << (8 * i);
                for (size_t i = 0; i < sources_.size(); ++i) {
                    AudioHost* host = host_.load();
                    const int32_t device = sourceDevices_[i].load();
                    if (host && device >= 0 && sources_[i].address.client == event->source.client &&
                        sources_[i].address.port == event->source.port)
                        host->midiInput(message, device);
                }
            }
        }
    }

    snd_seq_t* seq_;
    int inPort_ = -1;
    int outPort_ = -1;
    snd_midi_event_t* decoder_ = nullptr;
    snd_midi_event_t* encoder_ = nullptr;
    std::vector<SeqPort> sources_, destinations_;
    // The host's device index of each source while it is open, else -1; read by the reader thread.
    std::unique_ptr<std::atomic<int32_t>[]> sourceDevices_;
    std::atomic<AudioHost*> host_{nullptr};
    std::atomic<bool> quit_{false};
    Thread reader_;
};

}  // namespace

std::unique_ptr<MidiSystem> makeMidiSystem() {
    snd_seq_t* seq = nullptr;
    if (access(sequencerNode, R_OK | W_OK) != 0 || snd_seq_open(&seq, "default", SND_SEQ_OPEN_DUPLEX, 0) < 0)
        return std::make_unique<NoMidi>();
    return std::make_unique<AlsaMidi>(seq);
}

}  // namespace platform
