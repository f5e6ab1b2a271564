// ProjectSpacesManager: the project space the current project lives in. Type 0 or 1 is
// a local project space; type 2 a remote (shared) one, whose resource lists the server's
// mount points and says, per log, which media and whether proxies the server holds.
// The type and the resource's contents are stored in the project. A test can put
// another resource in place (ScopedProjectSpaceResource) to make the service fail.
//
// Lock: the replacement resource's lock guards only the replacement pointer; it is never
// held while the resource is used and may be taken with any other lock held.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"

#include <vector>

// A place where the server's media are mounted on this machine.
struct MountPointInfo {
    WString path;    // the primary path
    WString altPath; // used when the primary path is empty
    const WString& localPath() const { return path.empty() ? altPath : path; }
};

// A media entry that the server holds for a log.
struct ServerMediaEntry {
    Cookie material;
    WString path; // the media's place on the server
};

class iProjectSpaceResource : public iObject {
public:
    virtual std::vector<MountPointInfo> getMountPoints() const = 0;
    virtual std::vector<ServerMediaEntry> getServerMediaEntries(const Cookie& log) const = 0;
    virtual bool hasServerProxies(const Cookie& log) const = 0;
};

class ProjectSpacesManager {
public:
    enum eSpaceType { eLocal = 0, eLocalShared = 1, eRemote = 2 };

    // The current project's project-space type; 0 without a project.
    static int getCurrentProjectSpaceType();
    static bool setCurrentProjectSpaceType(int type);
    // The resource of the remote project space; null unless the type is 2. name selects
    // a project space where a host has several; a project has exactly one here, so any
    // name (an empty one included) gives it.
    static Zn::Ptr<iProjectSpaceResource> getResourceForRemoteProjectSpace(const WString& name = WString());

    // The project's own resource as stored, whatever the type (to show or edit it); null
    // without a project.
    static Zn::Ptr<iProjectSpaceResource> getStoredResource();

    // What the project's own resource holds: mount points in order, and per log its
    // server-side media entries and whether the server has its proxies.
    static bool addMountPoint(const MountPointInfo& mount);
    static bool addServerMediaEntry(const Cookie& log, const ServerMediaEntry& entry);
    static bool setServerProxies(const Cookie& log, bool hasProxies);
    // Forgets every mount point and server entry.
    static bool clearRemoteResource();
    // Forgets the mount points only.
    static bool clearMountPoints();
    // The logs for which the project's own resource records server-side media or
    // proxies, in creation order.
    static CookieVec getServerLogs();

private:
    friend class ScopedProjectSpaceResource;
    // Installs a resource that replaces the project's own (null: no resource at all);
    // active is false to go back to the project's own. Answers the previous state.
    static void replaceResource(bool active, Zn::Ptr<iProjectSpaceResource> resource, bool& wasActive,
                                Zn::Ptr<iProjectSpaceResource>& was);
};

// Replaces the remote project space's resource for a scope.
class ScopedProjectSpaceResource {
public:
    explicit ScopedProjectSpaceResource(Zn::Ptr<iProjectSpaceResource> resource) {
        ProjectSpacesManager::replaceResource(true, std::move(resource), prevActive_, prev_);
    }
    ~ScopedProjectSpaceResource() {
        bool a;
        Zn::Ptr<iProjectSpaceResource> r;
        ProjectSpacesManager::replaceResource(prevActive_, prev_, a, r);
    }
    ScopedProjectSpaceResource(const ScopedProjectSpaceResource&) = delete;
    ScopedProjectSpaceResource& operator=(const ScopedProjectSpaceResource&) = delete;

private:
    bool prevActive_ = false;
    Zn::Ptr<iProjectSpaceResource> prev_;
};
