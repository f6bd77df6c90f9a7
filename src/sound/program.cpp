#include "sound/program.h"

#include "fx/delay.h"
#include "fx/reverb.h"

CLayer::CLayer(CSynthProg* prog) : CObject(0, subKindLayer), prog(prog) { name = "Layer"; }

CLayer::~CLayer() { sounds.deleteAll(); }

void CLayer::addSound(CSound* sound) {
    sound->layer = this;
    sounds.add(sound);
    if (!selectedSound) selectedSound = sound;
}

CSynthProg::CSynthProg(int32_t blockSize, float sampleRate) : CObject(0, subKindSynthProg) {
    name = "program";
    // Made directly rather than through the effect registry: the sampler casts them to their classes.
    fx[0] = std::make_unique<CReverb>();
    fx[1] = std::make_unique<CDelay>();
    fx[0]->name = "Reverb";
    fx[1]->name = "Delay";
    for (const std::unique_ptr<CFX>& effect : fx) {
        effect->setBlockSize(blockSize);
        effect->setSampleRate(sampleRate);
        effect->setEnabled(false);
        effect->dry = 0.0f;
        effect->wet = 1.0f;
    }
}

CSynthProg::~CSynthProg() { layers.deleteAll(); }

CLayer* CSynthProg::addLayer() {
    auto* layer = new CLayer(this);
    layers.add(layer);
    return layer;
}
