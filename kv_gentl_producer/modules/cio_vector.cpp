#include "modules/cio_vector.h"

#include <algorithm>

#include "pelorin/gentl.h"

namespace {

bool contains(const std::vector<BufferRecord *> &queue, const BufferRecord *record) {
    return std::find(queue.begin(), queue.end(), record) != queue.end();
}

}  // namespace

bool CIoVector::Open() {
    CGenTLAutoLock guard(lock_);
    if (opened_) return true;
    if (output_ready_.create(true, false) != 0) return false;
    if (input_ready_.create(true, false) != 0) {
        output_ready_.close();
        return false;
    }
    opened_ = true;
    return true;
}

void CIoVector::Flush(int mode) {
    CGenTLAutoLock guard(lock_);
    if (output_ready_.valid()) output_ready_.set();
    if (input_ready_.valid()) input_ready_.set();
    if (mode == 0) {
        input_.clear();
        output_.clear();
    } else if (mode == 1) {
        input_.insert(input_.end(), output_.begin(), output_.end());
        output_.clear();
    }
}

int CIoVector::PushInput(BufferRecord *record) {
    CGenTLAutoLock guard(lock_);
    if (contains(input_, record)) return GC_ERR_RESOURCE_IN_USE;
    input_.push_back(record);
    if (input_ready_.valid()) input_ready_.set();
    return GC_ERR_SUCCESS;
}

void CIoVector::DropLastInput() {
    CGenTLAutoLock guard(lock_);
    if (!input_.empty()) input_.pop_back();
}

int CIoVector::CheckNotQueued(const BufferRecord *record) {
    CGenTLAutoLock guard(lock_);
    return contains(input_, record) || contains(output_, record) ? GC_ERR_RESOURCE_IN_USE
                                                                 : GC_ERR_SUCCESS;
}

size_t CIoVector::InputCount() {
    CGenTLAutoLock guard(lock_);
    return input_.size();
}

size_t CIoVector::OutputCount() {
    CGenTLAutoLock guard(lock_);
    return output_.size();
}

size_t CIoVector::Count() {
    CGenTLAutoLock guard(lock_);
    return input_.size() + output_.size();
}

BufferRecord *CIoVector::InputAt(size_t index) {
    CGenTLAutoLock guard(lock_);
    return index < input_.size() ? input_[index] : nullptr;
}

bool CIoVector::IsOutputEmpty() {
    CGenTLAutoLock guard(lock_);
    return output_.empty();
}

bool CIoVector::IsInOutput(const BufferRecord *record) {
    CGenTLAutoLock guard(lock_);
    return contains(output_, record);
}

int CIoVector::MoveToOutput(BufferRecord *record, uint64_t timeout_ms) {
    if (!opened_) return GC_ERR_NOT_INITIALIZED;
    if (record == nullptr) return GC_ERR_INVALID_PARAMETER;
    bool must_wait = false;
    {
        CGenTLAutoLock guard(lock_);
        if (input_.empty()) {
            input_ready_.reset();
            must_wait = true;
        }
    }
    if (must_wait && input_ready_.wait(static_cast<uint32_t>(timeout_ms)) != local_event::wait_result::signalled)
        return GC_ERR_RESOURCE_IN_USE;
    {
        CGenTLAutoLock guard(lock_);
        if (input_.empty()) return GC_ERR_RESOURCE_IN_USE;
        const auto found = std::find(input_.begin(), input_.end(), record);
        if (found == input_.end()) return GC_ERR_NO_DATA;
        input_.erase(found);
        output_.push_back(record);
    }
    output_ready_.set();
    return GC_ERR_SUCCESS;
}

BufferRecord *CIoVector::PopOutput() {
    CGenTLAutoLock guard(lock_);
    if (output_.empty()) return nullptr;
    BufferRecord *record = output_.front();
    output_.erase(output_.begin());
    if (output_.empty()) output_ready_.reset();
    return record;
}

int CIoVector::WaitPopOutput(BufferRecord *&record, uint32_t timeout_ms) {
    if (!opened_) return GC_ERR_NOT_INITIALIZED;
    record = PopOutput();
    if (record != nullptr) return GC_ERR_SUCCESS;
    if (output_ready_.wait(timeout_ms) != local_event::wait_result::signalled) return GC_ERR_NO_DATA;
    record = PopOutput();
    return record != nullptr ? GC_ERR_SUCCESS : GC_ERR_NO_DATA;
}
