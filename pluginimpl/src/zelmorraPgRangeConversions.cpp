// Conversions: packed ranges, set representation conversion, bitfield building and counting,
// bytea decoders.
#include "zelmorraPgUtils.h"

// ---- packed ranges ----


// ---- set representation conversion ----


// ---- bitfield conversion and counting ----


// ---- bytea decoders ----
