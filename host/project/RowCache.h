// RowCache: rows of the project database kept in memory between questions, so that the
// frequent look-ups (an edit by cookie, a material's directory entry) do not go to the
// database each time. A cache belongs to one open project and one state of it: every
// commit made in this process, and every commit of another process or seat (seen within
// a millisecond on a project file, within milliseconds through the server's notifications
// on a server project, see ProjectDatabase::stateGeneration), empties it. A row read at one state is only kept
// if the state has not moved on meanwhile. Bounded: when full it starts again empty.
//
// Lock: mutex_ guards the map and the state it belongs to. It is held only for a look-up
// or an insertion, never while the database is read, and no other lock is taken with it
// held, so it may be taken with any other lock held.
#pragma once

#include "host/project/ProjectDatabase.h"
#include "host/threads/PlainMutex.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>

template <class Key, class Value, class Hash = std::hash<Key>> class RowCache {
public:
    explicit RowCache(size_t capacity) : capacity_(capacity) {}

    // The state of db at which a row read now is valid; pass it to put.
    static uint64_t stateOf(const ProjectDatabase& db) { return db.stateGeneration(); }

    // The row of key when it is kept for db's present state; state receives that state.
    bool find(const ProjectDatabase& db, const Key& key, Value& out, uint64_t& state) {
        state = db.stateGeneration();
        PlainMutex::Lock lock(mutex_);
        if (!sameStateLocked(db, state)) return false;
        auto it = map_.find(key);
        if (it == map_.end()) return false;
        out = it->second;
        return true;
    }
    // Keeps a row read at state, unless the project has changed since.
    void put(const ProjectDatabase& db, const Key& key, const Value& value, uint64_t state) {
        if (db.stateGeneration() != state) return;
        PlainMutex::Lock lock(mutex_);
        if (!sameStateLocked(db, state)) return;
        if (map_.size() >= capacity_) map_.clear();
        map_.insert_or_assign(key, value);
    }

private:
    // Empties the map when it belongs to another project or state, and adopts db's.
    bool sameStateLocked(const ProjectDatabase& db, uint64_t state) REQUIRES(mutex_) {
        if (project_ == db.instanceId() && state_ == state) return true;
        if (project_ == db.instanceId() && state < state_) return false; // an older reader
        map_.clear();
        project_ = db.instanceId();
        state_ = state;
        return true;
    }

    const size_t capacity_;
    PlainMutex mutex_;
    uint64_t project_ GUARDED_BY(mutex_) = 0;
    uint64_t state_ GUARDED_BY(mutex_) = 0;
    std::unordered_map<Key, Value, Hash> map_ GUARDED_BY(mutex_);
};
