#pragma once
// Moved to core so that every loader shares it.
#include "core/block_in.h"
