#include "sound/program.h"

CLayer::CLayer(CSynthProg* prog) : CObject(0, subKindLayer), prog(prog) { name = "Layer"; }

CLayer::~CLayer() { sounds.deleteAll(); }

void CLayer::addSound(CSound* sound) {
    sound->layer = this;
    sounds.add(sound);
    if (!selectedSound) selectedSound = sound;
}

CSynthProg::CSynthProg(int32_t blockSize, float sampleRate) : CObject(0, subKindSynthProg) {
    name = "program";
    fx[0].reset(createFX(fxReverb));
    fx[1].reset(createFX(fxDelay));
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
