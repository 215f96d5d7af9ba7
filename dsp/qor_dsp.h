// The effect library of the Calvera 2 capture voice chain: every exported
// effect family. Each family is a set of free functions over caller-owned
// memory: ask GetInstanceSize, provide zeroed 32-byte-aligned memory of that
// size, Init, then Process/UpdateParameters/..., and Release.
#pragma once

#include "dsp/core/metering.h"
#include "dsp/dynamics/gating_compressor.h"
#include "dsp/dynamics/hard_limiter.h"
#include "dsp/dynamics/high_pass_filter.h"
#include "dsp/dynamics/multi_band_equaliser.h"
#include "dsp/dynamics/multi_band_compressor.h"
#include "dsp/noise/noise_reduction.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
#include "dsp/voice/reverb.h"
#include "dsp/voice/sample_rate_converter.h"
#include "dsp/noise/noise_reduction.h"
#include "dsp/voice/vocal_changer.h"
#include "dsp/voice/ring_modulator.h"
#include "dsp/voice/delay.h"
#include "dsp/voice/flanger_phaser.h"
