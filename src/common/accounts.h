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

/// An account of the system's user database. A field that the database leaves null is empty.
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

/// A group of the system's group database.
struct GroupInfo {
    /// @param withMembers also fill `members`, in the entry's order
    GroupInfo(const group& entry, bool withMembers);

    std::list<std::string> members;
    std::string name;
    std::uint32_t gid = 0;
};

namespace Utils {

/// The account of that name, or null: at once for an empty name, after a warning for any failure,
/// an unknown name included.
/// @param name its characters end in a NUL
[[nodiscard]] std::unique_ptr<UserInfo> getUserInfo(std::string_view name, bool withGroups);
/// The account's uid, or 0 when it is unknown: also the superuser's, so not a proof of either.
[[nodiscard]] std::uint32_t getUserUid(std::string_view name);

/// As getUserInfo, for groups.
[[nodiscard]] std::unique_ptr<GroupInfo> getGroupInfo(std::string_view name, bool withMembers);
/// Empty for an unknown group.
[[nodiscard]] std::list<std::string> getGroupMembers(std::string_view name);
/// The group's gid, or 0 when it is unknown.
[[nodiscard]] std::uint32_t getGroupGid(std::string_view name);

/// Makes the calling process the account's: groups, home directory, gid, uid and the environment's
/// USER, LOGNAME, HOME, SHELL and TERM ("linux"). Nothing is changed for root.
/// @return false after an error line when gid or uid could not be set; what was done until then
///         stays (a failed setuid leaves the new gid in place). Failing groups or home directory
///         only give a warning.
bool switchToUser(const UserInfo& account);

/// Gives a file to a user and a group (the user's primary group when the name is empty).
/// @return false when the user is unknown, or after an error line when chown(2) failed
bool setOwner(const std::filesystem::path& path, std::string_view user, std::string_view group);

} // namespace Utils
} // namespace Vorl
