#pragma once
// The program tree of the sampler: a program holds layers, a layer holds sounds. Each program owns its
// two send effects, a reverb and a delay, which every sound of the program feeds through its sends.

#include <cstdint>
#include <memory>

#include "core/list.h"
#include "core/object.h"
#include "engine/fx.h"
#include "sound/sound.h"

class CSynthProg;

constexpr int32_t subKindSynthProg = 6;
constexpr int32_t subKindLayer = 7;

class CLayer : public CObject {
public:
    explicit CLayer(CSynthProg* prog);
    ~CLayer() override;

    // Appends a sound the layer then owns; the first one becomes the selected sound.
    void addSound(CSound* sound);

    CSynthProg* prog;
    TList<CSound> sounds;  // owned
    CSound* selectedSound = nullptr;
    uint8_t editAll = 0;  // the editor's "Global edit"
};

class CSynthProg : public CObject {
public:
    // The send effects are made for this block size and rate, disabled, with dry 0 and wet 1.
    CSynthProg(int32_t blockSize, float sampleRate);
    ~CSynthProg() override;

    // Appends a layer the program then owns.
    CLayer* addLayer();
    CFX* reverb() const { return fx[0].get(); }
    CFX* delay() const { return fx[1].get(); }

    float bend = 0.0f;  // pitch wheel, -1 to just under +1
    TList<CLayer> layers;  // owned
    CLayer* selectedLayer = nullptr;
    std::unique_ptr<CFX> fx[2];  // fx[0] "Reverb", fx[1] "Delay"
};
