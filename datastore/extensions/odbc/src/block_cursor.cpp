#include "block_cursor.h"

#include <algorithm>
#include <cctype>

namespace vesk::datastore::odbc_backend {

namespace {

constexpr const char* cursor_name = "vesk_read";
// What a number column counts for when sizing blocks.
constexpr std::size_t number_bytes = 8;

class BlockCursor final : public sql::Statement {
public:
    BlockCursor(OdbcConnection& connection, std::string query, const BlockCursorOptions& options)
        : c_(connection), query_(std::move(query)), options_(options) {}

    // The statements are sent whole, without parameters.
    bool bind_text(int index, std::string_view) override { return no_binding(index); }
    bool bind_int64(int index, int64_t) override { return no_binding(index); }
    bool bind_double(int index, double) override { return no_binding(index); }
    bool bind_null(int index) override { return no_binding(index); }

    sql::StepResult step() override {
        if (state_ == State::finished) return sql::StepResult::done;
        if (state_ == State::ready) {
            if (!open_cursor()) return fail();
            state_ = State::reading;
        }
        for (;;) {
            if (block_) {
                largest_row_ = std::max(largest_row_, row_bytes_);
                row_bytes_ = 0;
                const sql::StepResult r = block_->step();
                if (r == sql::StepResult::row) {
                    ++rows_in_block_;
                    return r;
                }
                if (r == sql::StepResult::error) return fail();
                // A block shorter than asked for was the last: no FETCH
                // needs to find the cursor empty.
                if (rows_in_block_ < rows_asked_) {
                    state_ = State::finished;
                    return sql::StepResult::done;
                }
            }
            if (!fetch_next_block()) return fail();
        }
    }

    // Ready to run again; the cursor itself is closed then, or by the end
    // of the transaction, which costs no round trip of its own.
    bool reset() override {
        block_.reset();
        state_ = State::ready;
        return true;
    }

    int column_count() override { return block_ ? block_->column_count() : 0; }
    std::string column_name(int i) override { return block_ ? block_->column_name(i) : ""; }
    sql::ColumnType column_type(int i) override {
        return block_ ? block_->column_type(i) : sql::ColumnType::null;
    }
    bool column_text(int i, std::string& out) override {
        if (!block_ || !block_->column_text(i, out)) return false;
        row_bytes_ += out.size();
        return true;
    }
    int64_t column_int64(int i) override {
        row_bytes_ += number_bytes;
        return block_ ? block_->column_int64(i) : 0;
    }
    double column_double(int i) override {
        row_bytes_ += number_bytes;
        return block_ ? block_->column_double(i) : 0;
    }

private:
    enum class State { ready, reading, finished };

    bool no_binding(int index) {
        c_.record_failure("parameter " + std::to_string(index) +
                          ": a query read through a cursor takes no parameters");
        return false;
    }

    sql::StepResult fail() {
        block_.reset();
        state_ = State::finished;
        return sql::StepResult::error;
    }

    // Declares the cursor and asks for the first block in one round trip,
    // closing first the cursor an earlier run left open. The line break
    // ends a line comment that the query may end with.
    bool open_cursor() {
        block_.reset();
        if (declared_ && !c_.execute_direct(std::string("CLOSE ") + cursor_name)) return false;
        declared_ = true;
        rows_asked_ = options_.first_rows;
        rows_in_block_ = 0;
        largest_row_ = 0;
        row_bytes_ = 0;
        block_ = c_.prepare_direct(std::string("DECLARE ") + cursor_name +
                                   " NO SCROLL CURSOR FOR " + query_ + "\n;FETCH " +
                                   std::to_string(rows_asked_) + " FROM " + cursor_name);
        return block_ != nullptr;
    }

    // Asks for the next block: as many rows as the largest row so far fits
    // into block_bytes.
    bool fetch_next_block() {
        long rows = options_.first_rows;
        if (largest_row_ > 0)
            rows = static_cast<long>(std::min<std::size_t>(
                options_.block_bytes / largest_row_, static_cast<std::size_t>(options_.max_rows)));
        rows = std::clamp(rows, 1L, options_.max_rows);
        block_.reset();
        block_ = c_.prepare_direct("FETCH " + std::to_string(rows) + " FROM " + cursor_name);
        if (!block_) return false;
        rows_asked_ = rows;
        rows_in_block_ = 0;
        return true;
    }

    OdbcConnection& c_;
    const std::string query_;
    const BlockCursorOptions options_;
    std::unique_ptr<sql::Statement> block_;  // the current FETCH
    State state_ = State::ready;
    bool declared_ = false;  // a run of this statement declared the cursor
    long rows_asked_ = 0;
    long rows_in_block_ = 0;
    std::size_t largest_row_ = 0;  // bytes of the largest row read so far
    std::size_t row_bytes_ = 0;    // bytes read of the current row
};

}  // namespace

std::unique_ptr<sql::Statement> read_through_cursor(OdbcConnection& connection,
                                                    const std::string& query,
                                                    const BlockCursorOptions& options) {
    std::string text = query;
    while (!text.empty() &&
           (text.back() == ';' || std::isspace(static_cast<unsigned char>(text.back()))))
        text.pop_back();
    return std::make_unique<BlockCursor>(connection, std::move(text), options);
}

}  // namespace vesk::datastore::odbc_backend
