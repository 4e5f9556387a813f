#pragma once
// An interface that answers nothing and keeps the SQL its base class hands
// to select: the query texts the library builds, for tests to run elsewhere.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/records.h"

class RecordingInterface final : public vesk::datastore::interface {
public:
    bool is_open() override { return true; }
    int32_t open(const std::string&) override { return OPERATION_SUCCESSFULL; }
    int32_t close() override { return OPERATION_SUCCESSFULL; }
    bool select(std::string sql, std::vector<vesk::datastore::Row>&,
                const std::map<std::string, int>&) override {
        last_sql = std::move(sql);
        return true;
    }
    std::string last_sql;
};
