// The statement cache and the Query of the database layer.
#include "host/project/SqlConnection.h"

#include "host/core/Strings.h"

namespace sql {

Statement* Connection::statement(const char* sql) {
    if (!isOpen()) {
        setError(-1, "the database is not open");
        return nullptr;
    }
    auto it = cache_.find(sql);
    if (it != cache_.end()) return it->second.get();
    std::unique_ptr<Statement> stmt = prepare(sql);
    if (!stmt) return nullptr;
    return cache_.emplace(sql, std::move(stmt)).first->second.get();
}

Query& Query::bind(int i, const WString& v) { return bind(i, toUTF8(v)); }

bool Query::next() {
    if (!stmt_ || !ok_) return false;
    int rc = stmt_->step();
    if (rc > 0) return true;
    if (rc < 0) ok_ = false;
    return false;
}

bool Query::run() {
    while (next()) {
    }
    return ok_;
}

WString Query::wtext(int col) const {
    String t = stmt_->text(col);
    return fromUTF8(t.c_str(), int(t.size()));
}

} // namespace sql
