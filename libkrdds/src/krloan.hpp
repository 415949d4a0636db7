#pragma once

#include <dds/dds.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <vector>

namespace KR {

/// Samples on loan from the engine, returned on destruction.
class KRLoan {
public:
    explicit KRLoan(std::uint32_t most) : samples_(most), info_(most) {}
    ~KRLoan() {
        if (count_ > 0) {
            dds_return_loan(reader_, samples_.data(), count_);
        }
    }
    KRLoan(const KRLoan&) = delete;
    KRLoan& operator=(const KRLoan&) = delete;

    /// Fills this, once, by dds_read() or dds_take(). \return how many there are, not negative
    dds_return_t fill(dds_entity_t reader, decltype(dds_take)* get) {
        assert(count_ == 0);
        reader_ = reader;
        const auto most = static_cast<std::uint32_t>(samples_.size());
        count_ = std::max<dds_return_t>(0, get(reader, samples_.data(), info_.data(), most, most));
        return count_;
    }
    const void* getSample(dds_return_t i) const { return samples_[static_cast<std::size_t>(i)]; }
    const dds_sample_info_t& getInfo(dds_return_t i) const { return info_[static_cast<std::size_t>(i)]; }

private:
    std::vector<void*> samples_;
    std::vector<dds_sample_info_t> info_;
    dds_entity_t reader_ = 0;
    dds_return_t count_ = 0;
};

} // namespace KR
