#include "fx/effects.h"

#include "fx/dynamics.h"
#include "fx/effect.h"
#include "fx/time_effects.h"

void registerEffects() {
    registerEffectComponents();
    registerTimeEffects();
    registerDynamicsEffects();
}
