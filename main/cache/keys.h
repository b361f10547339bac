// Formats of the cache keys that hold what the platform's lookups read. A key that several files
// build stands here once.
#ifndef MAIN_CACHE_KEYS_H
#define MAIN_CACHE_KEYS_H

// By account id: facts, limits, and the index of extensions (short number to extension id).
inline constexpr char account_key[] = "res:inf:mng:%d";
inline constexpr char limits_key[] = "res:pre:mng:%d";
inline constexpr char extension_index_key[] = "res:ind:%d:ext";

// By full number of an extension.
inline constexpr char extension_info_key[] = "res:inf:ext:%s";
inline constexpr char extension_prefs_key[] = "res:po:ext:%s";
// Parts of an extension's data that lie in hashes of their own.
inline constexpr char callreturn_key[] = "res:cb:ext:%s";
inline constexpr char credit_key[] = "res:cc:ext:%s";
inline constexpr char owner_name_key[] = "res:cid:ext:%s";
inline constexpr char registration_key[] = "res:sip:ext:%s";
inline constexpr char allowed_key[] = "res:scral:ext:%s";
inline constexpr char denied_key[] = "res:scrdl:ext:%s";

// Written by other services, only read here.
inline constexpr char sip_session_key[] = "rtl:sipses:ext:%s";
inline constexpr char virtual_phones_key[] = "res:ind:vext";

// Parameters of the whole platform.
inline constexpr char system_key[] = "system:pbx";

#endif
