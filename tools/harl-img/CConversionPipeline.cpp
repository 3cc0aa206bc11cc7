#include "CConversionPipeline.h"

#include <thread>

namespace harlimg {

namespace {

// Slots per worker: enough that no stage waits for another while the I/O is steady, and few
// enough that the ring stays within a few MiB.
constexpr size_t kSlotsPerWorker = 4;
constexpr size_t kMinimumSlots = 8;

}  // namespace

CConversionPipeline::CConversionPipeline(std::vector<kz::P<harl::CVMDKDataPreparer>> preparers)
    : preparers(std::move(preparers)),
      slots(std::max(kMinimumSlots, kSlotsPerWorker * (this->preparers.size() + 1))) {
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
        CSlot& slot = slots[sequence % slots.size()];
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return failure || slot.state == SlotState::Free; });
            if (failure) {
                return;
            }
        }
        // A free slot belongs to the reader alone.
        slot.job.needsPreparing = false;
        const bool more = reader(slot.job);
        std::lock_guard lock(mutex);
        if (!more) {
            jobCount = sequence;
            changed.notify_all();
            return;
        }
        if (slot.job.needsPreparing) {
            slot.state = SlotState::Queued;
            queue.push_back(sequence);
        } else {
            slot.job.result = slot.job.data;
            slot.state = SlotState::Ready;
        }
        changed.notify_all();
    }
}

void CConversionPipeline::prepareLoop(harl::CVMDKDataPreparer& preparer) {
    for (;;) {
        long long sequence = 0;
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return failure || !queue.empty() || jobCount >= 0; });
            if (failure || queue.empty()) {
                return;
            }
            sequence = queue.front();
            queue.pop_front();
        }
        CJob& job = slots[sequence % slots.size()].job;
        job.result = preparer.prepareGrainData(job.data.get(), job.grainIndex, job.aux.get());
        std::lock_guard lock(mutex);
        slots[sequence % slots.size()].state = SlotState::Ready;
        changed.notify_all();
    }
}

void CConversionPipeline::writeLoop(const Writer& writer) {
    for (long long sequence = 0;; ++sequence) {
        CSlot& slot = slots[sequence % slots.size()];
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] {
                return failure || slot.state == SlotState::Ready || jobCount == sequence;
            });
            if (failure || slot.state != SlotState::Ready) {
                return;
            }
        }
        writer(slot.job);
        std::lock_guard lock(mutex);
        slot.state = SlotState::Free;
        changed.notify_all();
    }
}

void CConversionPipeline::fail(std::exception_ptr error) {
    std::lock_guard lock(mutex);
    if (!failure) {
        failure = error;
    }
    changed.notify_all();
}

void CConversionPipeline::guarded(const std::function<void()>& stage) {
    try {
        stage();
    } catch (...) {
        fail(std::current_exception());
    }
}

}  // namespace harlimg
