#pragma once

#include "base/AudioSource.h"

namespace harlune {

/// One streaming stage of the encode chain. An export pushes the audio through a short chain of
/// these, each owning the next: mixer, sample-rate converter, length guard, format writer. A stage
/// sees `consume` any number of times, then exactly one of `finish` (the stream ended) or `abort`
/// (it failed). All calls come from the one thread that runs the export.
class ChunkSink {
public:
    virtual ~ChunkSink() = default;

    /// One chunk: read-only views, one per channel, all of one length. May throw `HarluneError`.
    virtual void consume(ChunkViews chunk) = 0;
    /// Flushes everything, closes, and finishes the next stage. May throw `HarluneError`.
    virtual void finish() = 0;
    /// Drops everything and releases resources; forwards to the next stage. Never throws.
    virtual void abort() noexcept = 0;

protected:
    ChunkSink() = default;
    ChunkSink(const ChunkSink&) = delete;
    ChunkSink& operator=(const ChunkSink&) = delete;
};

} // namespace harlune
