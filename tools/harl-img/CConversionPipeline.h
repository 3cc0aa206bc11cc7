#pragma once

#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/grain/CVMDKDataPreparer.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <vector>

namespace harlimg {

// Moves grains from a source to a target in three stages: the calling thread reads grains,
// worker threads prepare (compress) those that need it, each with a preparer of its own, or
// prove that a grain read in prepared form unprepares (decompresses) before it is written, and
// one writer thread writes them in the order in which they were read. The library's objects
// stay single-threaded: the source belongs to the reader, each preparer to its worker, the
// target to the writer.
//
// Grains wait in a ring of slots whose buffers are made once, so memory stays at the ring's
// size whatever the image's size: a slot is free (the reader may fill it), queued (a worker may
// take it), or ready (the writer may write it once every earlier slot is written). The slots in
// use are always one run, from the writer's next slot to the reader's. The state changes under
// one mutex, which also hands each slot's buffers from thread to thread.
//
// A thread that waits is woken for half a ring of work, not for each slot: the reader once half
// the ring is free, the writer once half the ring is ready in order (or the end is known), and
// each goes on while it finds work. So the threads take turns in runs, which keeps the number
// of sleeps and wake-ups low on a busy machine.
//
// The first exception of any stage stops all of them; run() throws it once every thread has
// ended.
class CConversionPipeline {
public:
    // One grain on its way.
    struct CJob {
        long long grainIndex = 0;
        // Bytes of the source done once this grain is written, for progress.
        long long sourceBytesDone = 0;
        // Set by the reader: the data needs preparing by a worker.
        bool needsPreparing = false;
        // Set by the reader: the data is a prepared grain that a worker unprepares once, so
        // that a grain that does not decompress fails the run rather than reach the target.
        bool needsVerifying = false;
        // What the reader filled in; sized by the reader.
        kz::P<kz::TBuffer<unsigned char>> data{new kz::TBuffer<unsigned char>};
        // The workers' output buffer.
        kz::P<kz::TBuffer<unsigned char>> aux{new kz::TBuffer<unsigned char>};
        // What the writer writes: `data`, or the prepared grain.
        kz::P<kz::TBuffer<unsigned char>> result;
    };

    // Fills the job with the next grain and returns true, or returns false at the end.
    using Reader = std::function<bool(CJob& job)>;
    // Writes one job's result.
    using Writer = std::function<void(CJob& job)>;

    // `preparers` one per worker thread; none is allowed when no job needs preparing or
    // verifying.
    explicit CConversionPipeline(std::vector<kz::P<harl::CVMDKDataPreparer>> preparers);

    void run(const Reader& reader, const Writer& writer);

private:
    enum class SlotState { Free, Queued, Ready };

    struct CSlot {
        SlotState state = SlotState::Free;
        CJob job;
    };

    void readLoop(const Reader& reader);
    void prepareLoop(harl::CVMDKDataPreparer& preparer);
    // A worker's part of one job: prepares it, or verifies it and passes it on.
    static void work(harl::CVMDKDataPreparer& preparer, CJob& job);
    void writeLoop(const Writer& writer);
    // Under the mutex: whether the writer has something to do, or must end.
    bool writerMayGo() const;
    // Under the mutex: wakes the writer if it waits and may go.
    void wakeWriterIfDue();
    // Records the first failure and wakes every thread.
    void fail(std::exception_ptr error);
    // Runs `stage`, turning its exception into a failure of the pipeline.
    void guarded(const std::function<void()>& stage);

    CSlot& slotOf(long long sequence) { return slots[sequence % slots.size()]; }

    std::vector<kz::P<harl::CVMDKDataPreparer>> preparers;
    std::vector<CSlot> slots;
    // How many slots a waiting thread waits for.
    size_t batch;
    std::mutex mutex;
    std::condition_variable readerWake;
    std::condition_variable workerWake;
    std::condition_variable writerWake;
    std::deque<long long> queue;
    size_t freeSlots;
    long long writerNext = 0;
    bool readerWaiting = false;
    bool writerWaiting = false;
    // The number of jobs once the reader has found the end, else -1.
    long long jobCount = -1;
    std::exception_ptr failure;
};

}  // namespace harlimg
