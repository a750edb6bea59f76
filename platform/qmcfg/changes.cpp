#include <memory>

#include <sqlite3.h>

#include "changes.h"
#include "platform.h"
#include "qm_config.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "store.h"

namespace qmcfg {
namespace {

using Connection = std::unique_ptr<sqlite3, quelm::CDeleter<sqlite3_close>>;
using Query = std::unique_ptr<sqlite3_stmt, quelm::CDeleter<sqlite3_finalize>>;

// Rows of one table that the other lacks or holds with another value; an
// instance row has a null value. kind 0: in running, 1: gone from it.
constexpr const char *kChangesSql =
    "SELECT 0, r.name, r.value FROM running r LEFT JOIN saved s ON s.key = r.key"
    "  WHERE s.key IS NULL OR s.value IS NOT r.value"
    " UNION ALL "
    "SELECT 1, s.name, s.value FROM saved s LEFT JOIN running r ON r.key = s.key WHERE r.key IS NULL"
    " ORDER BY 2";

void append_row(sqlite3_stmt *row, std::string &out) {
    const bool gone = sqlite3_column_int(row, 0) == 1;
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(row, 1));
    const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(row, 2));
    if (name == nullptr) return;
    if (gone) {
        out += '-';
        out += name;
    } else if (value == nullptr) {
        out += '+';
        out += name;
    } else {
        out += name;
        out += '=';
        out += value;
    }
    out += '\n';
}

}  // namespace

int list_changes(std::string &out, std::string &message) {
    const std::string path = quelm::root_path(quelm::platform::kDatabaseFile);
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    Connection db(raw);
    if (rc != SQLITE_OK) {
        message = "cannot open " + path + (db ? std::string(": ") + sqlite3_errmsg(db.get()) : "");
        return QM_ERR_NOT_INIT;
    }
    sqlite3_busy_timeout(db.get(), quelm::platform::kBusyTimeoutMs);
    sqlite3_stmt *stmt = nullptr;
    rc = sqlite3_prepare_v2(db.get(), kChangesSql, -1, &stmt, nullptr);
    Query query(stmt);
    while (rc == SQLITE_OK && (rc = sqlite3_step(query.get())) == SQLITE_ROW) {
        append_row(query.get(), out);
        rc = SQLITE_OK;
    }
    if (rc != SQLITE_DONE) {
        message = std::string("reading ") + path + ": " + sqlite3_errmsg(db.get());
        return QM_ERR_STORAGE;
    }
    return QM_ERR_NONE;
}

}  // namespace qmcfg
