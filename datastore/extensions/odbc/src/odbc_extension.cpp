// libodbc.so: the datastore extension for database servers reached through
// ODBC (PostgreSQL first).
//
// In progress: this first version connects (parameters validated, dialect
// chosen from the server's name, schema created on PostgreSQL, read-only
// sessions set at the server) and answers every operation with
// UNSUPPORTED_OPERATION. The SQL operations come with the shared SQL
// extension kit, which will run them over the statement seam implemented in
// odbc_connection.cpp and the texts of pg_dialect.cpp.

#include <exception>
#include <memory>
#include <string>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/log.h"

#include "odbc_connection.h"
#include "odbc_parameters.h"
#include "pg_dialect.h"

namespace vesk::datastore::odbc_backend {

namespace {

constexpr int kErrorLevel = 3;

#define VESK_ODBC_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

class OdbcExtension final : public DataStoreExtension {
public:
    bool is_open() override { return connection_ != nullptr; }

    int32_t control(uint16_t /*op*/, const void* /*in*/, void* /*out*/, void* /*extra*/) override {
        // The operations arrive with the SQL extension kit.
        return UNSUPPORTED_OPERATION;
    }

    int32_t open(const std::string& parameters) override {
        try {
            return open_connection(parameters) ? OPERATION_SUCCESSFULL : OPERATION_UNSUCCESSFULL;
        } catch (const std::exception& e) {
            return fail_open(e.what());
        } catch (...) {
            return fail_open("unexpected error");
        }
    }

    int32_t close() override {
        connection_.reset();
        return OPERATION_SUCCESSFULL;
    }

private:
    std::string where() const { return "datastore \"" + instance_name + "\" (ODBC): "; }

    int32_t fail_open(const std::string& reason) {
        VESK_ODBC_LOG(kErrorLevel) << where() << "cannot open: " << reason;
        connection_.reset();
        return OPERATION_UNSUCCESSFULL;
    }

    bool refuse(const std::string& reason) {
        fail_open(reason);
        return false;
    }

    bool open_connection(const std::string& parameters) {
        std::string error;
        if (!parse_odbc_parameters(parameters, parameters_, error)) return refuse(error);

        ConnectOptions options;
        options.login_timeout_s = parameters_.login_timeout_s;
        options.query_timeout_s = parameters_.query_timeout_s;
        options.read_only = parameters_.read_only;
        sql::Error connect_error;
        // The connection string may hold a password: it is never logged.
        connection_ =
            OdbcConnection::connect(parameters_.connection_string(), options, connect_error);
        if (!connection_)
            return refuse((parameters_.source_is_dsn
                               ? "data source \"" + parameters_.source + "\": "
                               : std::string("connection string: ")) +
                          connect_error.message);

        if (connection_->dbms_name() != "PostgreSQL")
            return refuse("server \"" + connection_->dbms_name() +
                          "\" is not supported yet (PostgreSQL is)");
        connection_->set_require_utf8(true);
        if (parameters_.read_only) {
            std::unique_ptr<sql::Statement> s = connection_->prepare(pg::read_only_session_sql);
            if (!s || s->step() != sql::StepResult::done)
                return refuse("cannot make the session read-only: " +
                              connection_->last_error().message);
            return true;
        }
        if (!pg::create_schema(*connection_, error)) return refuse(error);
        return true;
    }

    OdbcParameters parameters_;
    std::unique_ptr<OdbcConnection> connection_;
};

}  // namespace

}  // namespace vesk::datastore::odbc_backend

extern "C" VESK_EXTENSION_ENTRY vesk::datastore::DataStoreExtension* create() noexcept {
    try {
        return new vesk::datastore::odbc_backend::OdbcExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(
    vesk::datastore::DataStoreExtension* instance) noexcept {
    delete instance;
}
