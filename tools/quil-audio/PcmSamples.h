#pragma once

// Sample values of linear and floating-point PCM formats as numbers in
// [-1, 1]: what the tone generator writes and the level meters read.

#include <QByteArray>
#include <QVector>

#include <alsa/asoundlib.h>

namespace quilaudio {

/// True for linear integer and floating-point formats; others (companded,
/// compressed) are passed through untouched but cannot be generated or measured.
bool hasSampleValues(snd_pcm_format_t format);

/// The sample at data as a value in [-1, 1] (full scale is 2^(width-1)).
double decodeSample(const char* data, snd_pcm_format_t format);
/// Stores value, clamped to [-1, 1], as one sample of format at data.
void encodeSample(double value, snd_pcm_format_t format, char* data);

/// Raises (*peaks)[c] to the largest magnitude of channel c in the block's
/// whole frames; *peaks is sized to the channel count. Does nothing more for
/// formats without sample values.
void accumulatePeaks(const QByteArray& block, snd_pcm_format_t format, int channels, QVector<double>* peaks);

/// The index of the block's first frame with a sample whose magnitude is at
/// or above level, or -1.
int firstFrameAtOrAbove(const QByteArray& block, snd_pcm_format_t format, int channels, double level);

/// A peak magnitude in dBFS ("-6.0", "-inf").
QString dbfsText(double peak);

/// `frames` frames of a sine tone at -6 dBFS, the same on every channel,
/// starting at frame `first` of the tone.
QByteArray toneBlock(double frequencyHz, int rate, int channels, snd_pcm_format_t format, qint64 first, int frames);

} // namespace quilaudio
