// The one query runner of both stores: prepare a statement for one call (one
// attempt unless the store says how a busy prepare is retried), bind it, step it with busy retry, hand the rows on
// and finalise it. Each store wraps it with what it adds: the real-time store
// its store lock, the configuration store its process-number resolution.
#ifndef QV_INTERNAL_QVQUERY_H
#define QV_INTERNAL_QVQUERY_H

#include <sqlite3.h>

#include <cstdio>

#include "internal/qvreport.h"
#include "internal/qvsqlite.h"
#include "internal/qvtexts.h"

namespace qvsql {

// A query's connection and how it reports: a failed prepare in the format
// `prepareFailed` (one %s, SQLite's message), a failed step in the one step
// text, and a busy step waited out by `step`, which may announce each wait.
struct QueryRunner {
    sqlite3* db;
    const char* prepareFailed = qvtext::kPrepareFailed;
    int (*step)(sqlite3_stmt*) = stepWithBusyRetry;
    // Prepares with busy retry; null: one attempt.
    int (*prepare)(sqlite3*, const char*, sqlite3_stmt**) = nullptr;

    // Prepares sql, binds it and hands the statement to `use`, whose result
    // is the query's; the statement is finalised when `use` returns. -1 when
    // the prepare fails.
    template <typename Bind, typename Use>
    int withStatement(const char* sql, Bind bind, Use use) const {
        Statement stmt;
        const int prepared =
            prepare != nullptr ? prepare(db, sql, stmt.out()) : stmt.prepare(db, sql);
        if (prepared != SQLITE_OK) {
            qvreport::sqliteFailure(db, prepareFailed);
            return -1;
        }
        bind(stmt.get());
        return use(stmt.get());
    }

    // Steps through the result rows and hands each to onRow for as long as it
    // returns true. 0 when the rows end or onRow stops; -1 on a failed step.
    template <typename OnRow>
    int forEachRow(sqlite3_stmt* stmt, const OnRow& onRow) const {
        for (;;) {
            const int rc = step(stmt);
            if (rc == SQLITE_DONE) return 0;
            if (rc != SQLITE_ROW) {
                qvreport::sqliteFailure(db, qvtext::kStepFailed);
                return -1;
            }
            if (!onRow(stmt)) return 0;
        }
    }

    // The two together: the rows of sql, bound by `bind`, to onRow.
    template <typename Bind, typename OnRow>
    int queryRows(const char* sql, Bind bind, const OnRow& onRow) const {
        return withStatement(sql, bind,
                             [this, &onRow](sqlite3_stmt* stmt) { return forEachRow(stmt, onRow); });
    }
};

}  // namespace qvsql

#endif  // QV_INTERNAL_QVQUERY_H
