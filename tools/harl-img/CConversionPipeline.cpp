#include "CConversionPipeline.h"

#include "harl/foundation/kz/CIOError.h"

#include <algorithm>
#include <thread>

namespace harlimg {

namespace {

// Slots: enough that a run of half the ring keeps every stage busy while the others sleep, and
// few enough that the ring stays within about 12 MiB (a slot holds a grain and its worst-case
// prepared form) however many workers there are.
constexpr size_t kSlotsPerWorker = 8;
constexpr size_t kMinimumSlots = 32;
constexpr size_t kMaximumSlots = 96;

}  // namespace

CConversionPipeline::CConversionPipeline(std::vector<kz::P<harl::CVMDKDataPreparer>> preparers)
    : preparers(std::move(preparers)),
      slots(
          std::clamp(kSlotsPerWorker * (this->preparers.size() + 1), kMinimumSlots, kMaximumSlots)),
      batch(slots.size() / 2),
      freeSlots(slots.size()) {
}

void CConversionPipeline::run(const Reader& reader, const Writer& writer) {
    std::vector<std::thread> threads;
    threads.emplace_back([&] { guarded([&] { writeLoop(writer); }); });
    for (const kz::P<harl::CVMDKDataPreparer>& preparer : preparers) {
        harl::CVMDKDataPreparer* own = preparer.get();
        threads.emplace_back([this, own] { guarded([&] { prepareLoop(*own); }); });
    }
    guarded([&] { readLoop(reader); });
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void CConversionPipeline::readLoop(const Reader& reader) {
    for (long long sequence = 0;; ++sequence) {
        CSlot& slot = slotOf(sequence);
        {
            std::unique_lock lock(mutex);
            if (freeSlots == 0) {
                readerWaiting = true;
                wakeWriterIfDue();
                readerWake.wait(lock, [&] { return failure || freeSlots >= batch; });
                readerWaiting = false;
            }
            if (failure) {
                return;
            }
        }
        // A free slot belongs to the reader alone.
        slot.job.needsPreparing = false;
        slot.job.needsVerifying = false;
        const bool more = reader(slot.job);
        std::lock_guard lock(mutex);
        if (!more) {
            jobCount = sequence;
            workerWake.notify_all();
            wakeWriterIfDue();
            return;
        }
        --freeSlots;
        if (slot.job.needsPreparing || slot.job.needsVerifying) {
            slot.state = SlotState::Queued;
            queue.push_back(sequence);
            workerWake.notify_one();
        } else {
            slot.job.result = slot.job.data;
            slot.state = SlotState::Ready;
            wakeWriterIfDue();
        }
    }
}

void CConversionPipeline::prepareLoop(harl::CVMDKDataPreparer& preparer) {
    for (;;) {
        long long sequence = 0;
        {
            std::unique_lock lock(mutex);
            workerWake.wait(lock, [&] { return failure || !queue.empty() || jobCount >= 0; });
            if (failure || queue.empty()) {
                return;
            }
            sequence = queue.front();
            queue.pop_front();
        }
        work(preparer, slotOf(sequence).job);
        std::lock_guard lock(mutex);
        slotOf(sequence).state = SlotState::Ready;
        wakeWriterIfDue();
    }
}

void CConversionPipeline::work(harl::CVMDKDataPreparer& preparer, CJob& job) {
    if (job.needsPreparing) {
        job.result = preparer.prepareGrainData(job.data.get(), job.grainIndex, job.aux.get());
        return;
    }
    try {
        preparer.unprepareGrainData(job.data.get(), job.aux.get());
    } catch (const kz::CIOError& e) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "Grain " + kz::String::number(job.grainIndex) +
                               " of the source does not decompress: " + e.what());
    }
    job.result = job.data;
}

void CConversionPipeline::writeLoop(const Writer& writer) {
    for (;;) {
        {
            std::unique_lock lock(mutex);
            // Within a run the writer goes on while the next slot is ready; between runs it
            // sleeps until a whole batch is. (Past the last job the slot is free.)
            const bool inRun = slotOf(writerNext).state == SlotState::Ready;
            if (!inRun && !writerMayGo()) {
                writerWaiting = true;
                writerWake.wait(lock, [&] { return writerMayGo(); });
                writerWaiting = false;
            }
            if (failure || writerNext == jobCount) {
                return;
            }
        }
        CSlot& slot = slotOf(writerNext);
        writer(slot.job);
        std::lock_guard lock(mutex);
        slot.state = SlotState::Free;
        ++writerNext;
        if (++freeSlots >= batch && readerWaiting) {
            readerWake.notify_one();
        }
    }
}

bool CConversionPipeline::writerMayGo() const {
    if (failure || writerNext == jobCount) {
        return true;
    }
    size_t ready = 0;
    while (ready < batch && ready < slots.size() &&
           slots[(writerNext + ready) % slots.size()].state == SlotState::Ready &&
           (jobCount < 0 || writerNext + static_cast<long long>(ready) < jobCount)) {
        ++ready;
    }
    // Short of a batch, go on only when no more is coming. A reader that waits needs no
    // exception: it waits only on a full ring, which its workers make ready in full.
    return ready >= batch || (ready > 0 && jobCount >= 0);
}

void CConversionPipeline::wakeWriterIfDue() {
    if (writerWaiting && writerMayGo()) {
        writerWake.notify_one();
    }
}

void CConversionPipeline::fail(std::exception_ptr error) {
    std::lock_guard lock(mutex);
    if (!failure) {
        failure = error;
    }
    readerWake.notify_all();
    workerWake.notify_all();
    writerWake.notify_all();
}

void CConversionPipeline::guarded(const std::function<void()>& stage) {
    try {
        stage();
    } catch (...) {
        fail(std::current_exception());
    }
}

}  // namespace harlimg
