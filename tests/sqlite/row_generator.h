#pragma once
// Deterministic rows for the process tests: a batch is known by (writer,
// batch number), and its size and every byte of its rows follow from those
// two numbers, so a checker can regenerate what a killed writer was writing.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::test {

// VESK_SQLITE_SCALE, a divisor of the default counts of the process tests
// (1 when unset or not a positive number).
inline int count_divisor() {
    const char* text = std::getenv("VESK_SQLITE_SCALE");
    const int value = text ? std::atoi(text) : 1;
    return value > 0 ? value : 1;
}

// Small, fast generator (xorshift64*).
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t next() {
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1Dull;
    }
    // Uniform in [0, n).
    uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }

private:
    uint64_t state_;
};

// "<writer>-<batch>": the OptionID that marks every row of one batch.
inline std::string batch_tag(uint64_t writer, uint64_t batch) {
    return std::to_string(writer) + "-" + std::to_string(batch);
}

// Whether batch `batch` of `writer` is written as one single insert (about
// one in three) or as a bulk insert.
inline bool is_single(uint64_t writer, uint64_t batch) {
    return Random(writer * 7919ull + batch * 31ull + 5).below(3) == 0;
}

// The rows of one batch: 1 row for a single insert, else 1 to `max_rows`.
inline std::vector<vesk::datastore::InsertRecord> make_batch(uint64_t writer, uint64_t batch,
                                                             size_t max_rows) {
    Random random(writer * 1000003ull + batch);
    const size_t count = is_single(writer, batch) ? 1 : 1 + random.below(max_rows);
    std::vector<vesk::datastore::InsertRecord> rows(count);
    for (size_t i = 0; i < count; ++i) {
        auto& r = rows[i];
        r.header.provider = "prov" + std::to_string(random.below(5));
        r.header.hostname = "host" + std::to_string(random.below(13));
        r.header.num_nodes = 1;
        r.header.node_names = {r.header.hostname};
        r.header.exit_status = static_cast<int32_t>(random.below(3));
        r.header.timestamp = static_cast<int64_t>(i);
        r.header.duration = static_cast<double>(random.below(1000)) / 8.0;
        r.header.version = 1;
        r.header.username = "w" + std::to_string(writer);
        r.header.unique_timestamp = static_cast<int64_t>(writer * 1000000 + batch);
        r.option_id = batch_tag(writer, batch);
        // Mostly short outputs, now and then one that spans overflow pages;
        // every byte value occurs.
        const size_t out_size =
            random.below(64) == 0 ? 8000 + random.below(8000) : random.below(400);
        r.std_out.resize(out_size);
        for (auto& c : r.std_out) c = static_cast<char>(random.next() >> 56);
        r.std_err.resize(random.below(64));
        for (auto& c : r.std_err) c = static_cast<char>(random.next() >> 56);
    }
    return rows;
}

}  // namespace vesk::test
