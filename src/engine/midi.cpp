#include "engine/midi.h"

#include <cstring>

void CMIDIQ::addEvent(double frame, uint32_t midi, EventType type, float value, int32_t param, void* target,
                      void* extra) {
    if (count >= maxEvents) return;
    // Producers mostly emit in order, so the place is searched from the end.
    int32_t at = count;
    while (at > 0 && events[at - 1].frame > frame) --at;
    if (at < count) std::memmove(&events[at + 1], &events[at], sizeof(CMIDIEvent) * static_cast<size_t>(count - at));
    events[at] = CMIDIEvent{frame, midi, type, value, param, target, extra, nullptr};
    ++count;
    for (int32_t i = at > 0 ? at - 1 : 0; i < count; ++i) events[i].next = i + 1 < count ? &events[i + 1] : nullptr;
}

void CMIDIQ::appendEvent(double frame, uint32_t midi, EventType type, float value, int32_t param, void* target,
                         void* extra) {
    if (count >= maxEvents) return;
    events[count] = CMIDIEvent{frame, midi, type, value, param, target, extra, nullptr};
    if (count > 0) events[count - 1].next = &events[count];
    ++count;
}
