#include "common/accounts.h"

#include "common/call_failure.h"
#include "logger"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace Vorl {

namespace {

std::string textOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

std::vector<std::uint32_t> groupsOf(const passwd& entry) {
    int count = 0;
    getgrouplist(entry.pw_name, entry.pw_gid, nullptr, &count);
    if (count < 1)
        return {};
    std::vector<std::uint32_t> groups(static_cast<std::size_t>(count), entry.pw_gid);
    getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count);
    // An entry for a group that was added between the calls must not become group 0.
    groups.resize(static_cast<std::size_t>(std::max(count, 0)), entry.pw_gid);
    return groups;
}

/// A buffer for one database entry, of the size that sysconf(3) suggests.
std::vector<char> entryBuffer(int sizeName) {
    constexpr long sizeWhenUnknown = 16384;
    const long size = sysconf(sizeName);
    return std::vector<char>(static_cast<std::size_t>(size > 0 ? size : sizeWhenUnknown));
}

} // namespace

UserInfo::UserInfo(const passwd& entry, bool withGroups)
    : user(textOrEmpty(entry.pw_name)), home(textOrEmpty(entry.pw_dir)),
      shell(textOrEmpty(entry.pw_shell)), gecos(textOrEmpty(entry.pw_gecos)), uid(entry.pw_uid),
      gid(entry.pw_gid) {
    if (withGroups)
        groups = groupsOf(entry);
}

GroupInfo::GroupInfo(const group& entry, bool withMembers)
    : name(textOrEmpty(entry.gr_name)), gid(entry.gr_gid) {
    if (!withMembers)
        return;
    for (char** member = entry.gr_mem; member != nullptr && *member != nullptr; ++member)
        members.emplace_back(*member);
}

namespace Utils {

std::unique_ptr<UserInfo> getUserInfo(std::string_view name, bool withGroups) {
    if (name.empty())
        return nullptr;
    std::vector<char> buffer = entryBuffer(_SC_GETPW_R_SIZE_MAX);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(name.data(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr)
        return std::make_unique<UserInfo>(entry, withGroups);
    // Reports errno, not the call's result: for an unknown account, that is whatever errno holds.
    Syslog::warning("%s: %s failed, user: `%s', error: %s, code: %d", "getUserInfo", "getpwnam_r",
                    name.data(), strerror(errno), errno);
    return nullptr;
}

std::uint32_t getUserUid(std::string_view name) {
    const auto account = getUserInfo(name, false);
    return account ? account->uid : 0;
}

std::unique_ptr<GroupInfo> getGroupInfo(std::string_view name, bool withMembers) {
    if (name.empty())
        return nullptr;
    std::vector<char> buffer = entryBuffer(_SC_GETGR_R_SIZE_MAX);
    group entry{};
    group* found = nullptr;
    if (getgrnam_r(name.data(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr)
        return std::make_unique<GroupInfo>(entry, withMembers);
    Syslog::warning("%s: %s failed, group: `%s', error: %s, code: %d", "getGroupInfo", "getgrnam_r",
                    name.data(), strerror(errno), errno);
    return nullptr;
}

std::list<std::string> getGroupMembers(std::string_view name) {
    auto group = getGroupInfo(name, true);
    return group ? std::move(group->members) : std::list<std::string>();
}

std::uint32_t getGroupGid(std::string_view name) {
    const auto group = getGroupInfo(name, false);
    return group ? group->gid : 0;
}

bool switchToUser(const UserInfo& account) {
    Syslog::debug("%s: user: %s, uid: %d, gid: %d, home: %s", "switchToUser", account.user.c_str(),
                  account.uid, account.gid, account.home.c_str());
    if (account.user == "root" || account.uid == 0)
        return true;

    if (account.groups.empty()) {
        Syslog::warning("%s: empty groups, username: `%s'", "switchToUser", account.user.c_str());
    } else if (setgroups(account.groups.size(), account.groups.data()) < 0) {
        warnCallFailed("switchToUser", "setgroups");
    }
    // Before the switch, because the old identity may enter directories that the account cannot.
    if (chdir(account.home.c_str()) < 0)
        warnCallFailed("switchToUser", "chdir");

    if (setgid(account.gid) < 0) {
        logCallFailed("switchToUser", "setgid");
        return false;
    }
    if (setuid(account.uid) < 0) {
        logCallFailed("switchToUser", "setuid");
        return false;
    }

    // setenv(3) is not thread-safe, but no other threads exist at start or in a forked child.
    setenv("USER", account.user.c_str(), 1);
    setenv("LOGNAME", account.user.c_str(), 1);
    setenv("HOME", account.home.c_str(), 1);
    setenv("SHELL", account.shell.c_str(), 1);
    setenv("TERM", "linux", 1);
    return true;
}

bool setOwner(const std::filesystem::path& path, std::string_view user, std::string_view group) {
    const std::string userName(user);
    const std::string groupName(group);
    Syslog::debug("%s: path: %s, user: %s, group: %s", "setOwner", path.c_str(), userName.c_str(),
                  groupName.empty() ? "skipped" : groupName.c_str());
    const auto account = getUserInfo(userName, false);
    if (!account)
        return false;
    const gid_t gid = groupName.empty() ? account->gid : getGroupGid(groupName);
    if (chown(path.c_str(), account->uid, gid) < 0) {
        logCallFailed("setOwner", "chown");
        return false;
    }
    return true;
}

} // namespace Utils
} // namespace Vorl
