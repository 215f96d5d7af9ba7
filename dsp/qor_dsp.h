// The effect library of the Calvera 2 capture voice chain: every exported
// effect family. Each family is a set of free functions over caller-owned
// memory: ask GetInstanceSize, provide zeroed 32-byte-aligned memory of that
// size, Init, then Process/UpdateParameters/..., and Release.
#pragma once

// The voice chain, which owns one instance of each stage below.
#include "dsp/chain/calvera2.h"

// Level meter.
#include "dsp/core/metering.h"

// Dynamics and filters.
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "dsp/dynamics/multi_band_equaliser.h"

// Noise reduction.
#include "dsp/noise/noise_reduction.h"

// Voice effects and the sample-rate converter.
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/reverb.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/sample_rate_converter.h"
#include "dsp/voice/vocal_changer.h"
