#pragma once
// Start-up registration of everything the effects subsystem adds to the engine's factories: the
// "Multi Effect" component and the effect kinds its chain and the sounds can make by number.

void registerEffects();
