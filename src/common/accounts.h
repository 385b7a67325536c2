#pragma once

#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <grp.h>
#include <pwd.h>

namespace Vorl {

/// An account from the system's user database. A null field of the database is empty here.
struct UserInfo {
    /// @param withGroups also fill `groups`, by getgrouplist(3)
    UserInfo(const passwd& entry, bool withGroups);

    std::vector<std::uint32_t> groups;
    std::string user;
    std::string home;
    std::string shell;
    std::string gecos;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
};

/// A group from the system's group database.
struct GroupInfo {
    /// @param withMembers also fill `members`, in the entry's order
    GroupInfo(const group& entry, bool withMembers);

    std::list<std::string> members;
    std::string name;
    std::uint32_t gid = 0;
};

namespace Utils {

/// The account with that name. Null without a message for an empty name, and after a warning for an
/// unknown name or any failure.
/// @param name must be NUL-terminated
[[nodiscard]] std::unique_ptr<UserInfo> getUserInfo(std::string_view name, bool withGroups);
/// The account's uid, or 0 when it is unknown. 0 is also root's uid: the result does not tell them
/// apart.
[[nodiscard]] std::uint32_t getUserUid(std::string_view name);

/// As getUserInfo, for groups.
[[nodiscard]] std::unique_ptr<GroupInfo> getGroupInfo(std::string_view name, bool withMembers);
/// Empty for an unknown group.
[[nodiscard]] std::list<std::string> getGroupMembers(std::string_view name);
/// The group's gid, or 0 when it is unknown.
[[nodiscard]] std::uint32_t getGroupGid(std::string_view name);

/// Switches the calling process to the account: sets supplementary groups, current directory, gid,
/// uid, and the environment variables USER, LOGNAME, HOME, SHELL and TERM ("linux"). Changes
/// nothing if the account is root.
/// @return false after an error line when gid or uid could not be set; earlier steps are not undone
///         (a failed setuid leaves the new gid in place). If only groups or directory could not be
///         set, there is a warning.
bool switchToUser(const UserInfo& account);

/// Sets a file's owner and group (the user's primary group when the group name is empty).
/// @return false when the user is unknown, or after an error line when chown(2) failed
bool setOwner(const std::filesystem::path& path, std::string_view user, std::string_view group);

} // namespace Utils
} // namespace Vorl
