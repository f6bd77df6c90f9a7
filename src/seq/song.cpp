#include "seq/song.h"

#include "seq/seq.h"
#include "seq/track.h"

CSongTrack::CSongTrack(CSeqProg* prog, CTrack* track)
    : eventQueue(nullptr), noteOffQueue(nullptr), auxQueue(nullptr), prog(prog), track(track) {}

CSongTrack::~CSongTrack() {
    parts.deleteAll();
    freezeItems.deleteAll();
}

CSeqProg::CSeqProg(CSeq* seq) : seq(seq) {}

CSeqProg::~CSeqProg() {
    songTracks.deleteAll();
    markers.deleteAll();
    signatures.deleteAll();
    tempos.deleteAll();
}

CSongTrack* CSeqProg::songTrackOf(const CTrack* track) const {
    for (CSongTrack* songTrack : songTracks)
        if (songTrack->track == track) return songTrack;
    return nullptr;
}
