#include "seq/part.h"

#include <utility>

CPart::CPart(int32_t partKind, int32_t defaultLength) : CObject(2, partKind), length(defaultLength) {}

CPart::~CPart() { deleteContent(); }

void CPart::deleteContent() {
    if (ghostSource) return;  // a ghost shares its source's chains
    deleteChain(events);
    events = nullptr;
    for (CEventRec*& head : automation) {
        deleteChain(head);
        head = nullptr;
    }
}

CString CPart::getName() const { return ghostSource ? ghostSource->getName() : CObject::getName(); }

CEventRec* CPart::getEvents() const { return ghostSource ? ghostSource->events : events; }

CEventRec* CPart::getAutomation(uint32_t slot) const {
    if (slot >= static_cast<uint32_t>(automationSlots)) return nullptr;
    return ghostSource ? ghostSource->automation[slot] : automation[slot];
}

void CPart::copyCommonInto(CPart& copy, int32_t shallow) const {
    copy.ghostSource = ghostSource;
    copy.color = color;
    copy.start = start;
    copy.offset = offset;
    copy.length = length;
    copy.name = name;
    copy.flags.store(flags.load(std::memory_order_relaxed), std::memory_order_relaxed);
    if (ghostSource) return;
    copy.events = copyChain(events);
    if (!shallow) copyAutomation(*this, copy);
}

CPart* CPart::clone(int32_t shallow) const {
    CPart* copy = makeEmpty();
    copyCommonInto(*copy, shallow);
    return copy;
}

void CPart::swapContents(CPart* other) {
    std::swap(events, other->events);
    for (int32_t slot = 0; slot < automationSlots; ++slot) std::swap(automation[slot], other->automation[slot]);
}

CPart* CAudioPart::makeEmpty() const {
    auto* copy = new CAudioPart();
    copy->multiClip = multiClip;
    copy->audioChannels = audioChannels;
    return copy;
}

CPart* CMarkerPart::makeEmpty() const {
    auto* copy = new CMarkerPart();
    copy->reserved[0] = reserved[0];
    copy->reserved[1] = reserved[1];
    return copy;
}

CPart* CTimesigPart::makeEmpty() const {
    auto* copy = new CTimesigPart();
    copy->numerator = numerator;
    copy->denominator = denominator;
    copy->referenceTempo = referenceTempo;
    return copy;
}

CPart* CTempoPart::makeEmpty() const {
    auto* copy = new CTempoPart();
    copy->tempo = tempo;
    return copy;
}

void deleteChain(CEventRec* head) {
    while (head) {
        CEventRec* next = head->next;
        delete head;
        head = next;
    }
}

CEventRec* copyChain(const CEventRec* head) {
    CEventRec* first = nullptr;
    CEventRec** link = &first;
    for (; head; head = head->next) {
        *link = head->clone();
        link = &(*link)->next;
    }
    return first;
}

void copyAutomation(const CPart& source, CPart& destination) {
    if (source.ghostSource) return;
    for (int32_t slot = 0; slot < automationSlots; ++slot) {
        deleteChain(destination.automation[slot]);
        destination.automation[slot] = copyChain(source.automation[slot]);
    }
}

void insertEvent(CPart& part, int32_t tick, CEventRec* event) {
    CPart& holder = *part.contentHolder();
    CEventRec** link = &holder.events;
    int64_t at = 0;  // absolute tick of the event before the link
    // Walk past every event at or before the tick, so equal ticks keep their insertion order.
    while (*link && at + (*link)->delta <= tick) {
        at += (*link)->delta;
        link = &(*link)->next;
    }
    const int64_t gap = tick - at;
    event->delta = static_cast<uint32_t>(gap > 0 ? gap : 0);
    event->next = *link;
    if (event->next) event->next->delta -= event->delta;
    *link = event;
}

void appendEvent(CPart& part, CEventRec* event) {
    CPart& holder = *part.contentHolder();
    CEventRec** link = &holder.events;
    while (*link) link = &(*link)->next;
    event->next = nullptr;
    *link = event;
}
