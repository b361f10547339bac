// The steps of the protocol as scripts that run inside the DisDB, each as a whole. Internal to
// transfer/queue.cpp. A claim of this node that no job of this process holds was left by a process
// that ended, and is taken over.
#ifndef TRANSFER_SCRIPTS_H
#define TRANSFER_SCRIPTS_H

#include <string>

// Built once at the start of the process. The server keeps scripts by their digest.
struct queue_script {
  explicit queue_script(std::string source);
  std::string text;
  std::string digest;  // SHA-1, lower-case hexadecimal
};

// Whether a member is one of this node, with `kind` bytes of a kind before its key; stands in
// front of the two scripts below.
inline constexpr char is_of_text[] = R"lua(
local function is_of(node, member, kind)
  local at = string.find(member, '@', 1, true)
  local stop = at and at + #node + 1
  return at and string.sub(member, at + 1, stop) == node .. ':' and
         not string.find(member, ':', stop + 1 + kind, true)
end
)lua";

// KEYS: queue. ARGV: first and last place, node or "" for all, most entries.
// {next place or -1, {member, score, ...}}
// The first place is counted from the front of the set. Filtering happens in the server, so that
// other nodes' members do not cross the network. At most `most` members come back, however many
// places were read.
inline constexpr char page_text[] = R"lua(
local first, last, node, most = tonumber(ARGV[1]), tonumber(ARGV[2]), ARGV[3], tonumber(ARGV[4])
local read = redis.call('ZRANGE', KEYS[1], first, last, 'WITHSCORES')
local found = {}
for i = 1, #read, 2 do
  if node == '' or is_of(node, read[i], 0) then
    found[#found + 1] = read[i]
    found[#found + 1] = read[i + 1]
    if #found == 2 * most then return {first + (i + 1) / 2, found} end
  end
end
if #read < 2 * (last - first + 1) then return {-1, found} end
return {last + 1, found}
)lua";

// KEYS: queue. ARGV: first and last place, node, bytes of a kind.
// {next place or -1, count, oldest score or ""}
// Counts members of the node in a range of places; the caller goes on until -1.
inline constexpr char count_text[] = R"lua(
local first, last, node = tonumber(ARGV[1]), tonumber(ARGV[2]), ARGV[3]
local read = redis.call('ZRANGE', KEYS[1], first, last)
local count, oldest = 0, ''
for _, member in ipairs(read) do
  if is_of(node, member, tonumber(ARGV[4])) then
    if count == 0 then oldest = redis.call('ZSCORE', KEYS[1], member) end
    count = count + 1
  end
end
return {#read < last - first + 1 and -1 or last + 1, count, oldest}
)lua";

// KEYS: uploads, deletions, claim, claim of the prefix, unclear. ARGV: member, score, deletion of
// the key, deletion of the prefix, claim value, claim owner, milliseconds, unclear member, now.
// Nothing is changed unless the member has the score that was read. A claim of another owner, or of
// the whole prefix, ends it with "claimed". An old claim of this node is taken over, and its
// transfer counts as unclear. The two scores of deletions decide between "unchanged", "contested"
// and "deleted".
inline constexpr char begin_upload_text[] = R"lua(
local score = redis.call('ZSCORE', KEYS[1], ARGV[1])
if not score then return 'gone' end
if score ~= ARGV[2] then return 'renewed' end
local holder = redis.call('GET', KEYS[3])
if holder and string.sub(holder, 1, #ARGV[6]) ~= ARGV[6] then return 'claimed' end
if redis.call('EXISTS', KEYS[4]) == 1 then return 'claimed' end
if holder and holder ~= ARGV[5] then
  redis.call('ZADD', KEYS[5], ARGV[9], ARGV[8])
  if string.match(holder, '[^/]*$') ~= score then
    redis.call('ZADD', KEYS[5], ARGV[9], ARGV[8] .. ':older')
  end
end
local unclear = redis.call('ZSCORE', KEYS[5], ARGV[8])
if unclear and tonumber(unclear) < tonumber(score) then
  redis.call('ZADD', KEYS[5], unclear, ARGV[8] .. ':older')
end
redis.call('SET', KEYS[3], ARGV[5], 'PX', ARGV[7])
local deleted = math.max(tonumber(redis.call('ZSCORE', KEYS[2], ARGV[3]) or -1),
                         tonumber(redis.call('ZSCORE', KEYS[2], ARGV[4]) or -1))
if deleted > tonumber(score) + 1 then return 'deleted' end
if deleted >= tonumber(score) then return 'contested' end
return 'unchanged'
)lua";

// KEYS: as above, mark of the prefix.
// ARGV: 1 member, 2 score, 3 deletion of the key, 4 deletion of the prefix, 5 claim value, 6
// unclear member, 7 now, 8 "unclear" or "clear". In milliseconds: 9 for which a mark is kept, 10
// since the job began. 11 the oldest unclear end that counts. The order matters: a lost claim is
// noted as unclear before anything else. A renewed member stays and is sent again. "deleted" keeps
// the claim, as the object is still to be removed. The member goes last, when nothing can have
// removed the object meanwhile.
inline constexpr char end_upload_text[] = R"lua(
local score = redis.call('ZSCORE', KEYS[1], ARGV[1])
local held = redis.call('GET', KEYS[3]) == ARGV[5]
if not held or ARGV[8] == 'unclear' then redis.call('ZADD', KEYS[5], ARGV[7], ARGV[6]) end
if not held then return score and 'claimed' or 'gone' end
if score and score ~= ARGV[2] then
  if ARGV[8] == 'unclear' then redis.call('ZADD', KEYS[5], ARGV[7], ARGV[6] .. ':older') end
  redis.call('DEL', KEYS[3])
  return 'renewed'
end
local deleted = math.max(tonumber(redis.call('ZSCORE', KEYS[2], ARGV[3]) or -1),
                         tonumber(redis.call('ZSCORE', KEYS[2], ARGV[4]) or -1))
if deleted > tonumber(ARGV[2]) + 1 then return 'deleted' end
redis.call('DEL', KEYS[3])
if not score then return 'gone' end
local older = tonumber(redis.call('ZSCORE', KEYS[5], ARGV[6] .. ':older') or -1)
if older >= tonumber(ARGV[11]) then return 'unclear' end
if redis.call('EXISTS', KEYS[4]) == 1 then return 'claimed' end
-- The object may have come and gone between two requests of a deletion that ended meanwhile.
local left = redis.call('PTTL', KEYS[6])
if left >= 0 and tonumber(ARGV[9]) - left <= tonumber(ARGV[10]) then return 'claimed' end
redis.call('ZREM', KEYS[1], ARGV[1])
return 'unchanged'
)lua";

// KEYS: queue, claim. ARGV: member, score, claim value.
// Removes an unchanged member; the claim goes in any case.
inline constexpr char drop_text[] = R"lua(
if redis.call('GET', KEYS[2]) == ARGV[3] then redis.call('DEL', KEYS[2]) end
local score = redis.call('ZSCORE', KEYS[1], ARGV[1])
if not score then return 'gone' end
if score ~= ARGV[2] then return 'renewed' end
redis.call('ZREM', KEYS[1], ARGV[1])
return 'unchanged'
)lua";

// KEYS: claim, unclear, queue. ARGV: claim value, unclear member or "", now, member, score.
// Leaves the queue alone. A transfer that may still take effect is noted as unclear.
inline constexpr char leave_text[] = R"lua(
if redis.call('GET', KEYS[1]) == ARGV[1] then redis.call('DEL', KEYS[1]) end
if ARGV[2] == '' then return 'unchanged' end
redis.call('ZADD', KEYS[2], ARGV[3], ARGV[2])
if redis.call('ZSCORE', KEYS[3], ARGV[4]) ~= ARGV[5] then
  redis.call('ZADD', KEYS[2], ARGV[3], ARGV[2] .. ':older')
end
return 'unchanged'
)lua";

// KEYS: deletes, deletions, claim, unclear. ARGV: member, score, deletion, claim value or "" for
// none, claim owner, milliseconds, unclear member or "" for a prefix, now.
// The deletion is written down before the claim is looked at: an upload that holds the key meets it
// at its end. A deletion that is known already keeps the later time.
inline constexpr char begin_delete_text[] = R"lua(
local score = redis.call('ZSCORE', KEYS[1], ARGV[1])
if not score then return 'gone' end
if score ~= ARGV[2] then return 'renewed' end
local known = redis.call('ZSCORE', KEYS[2], ARGV[3])
if not known or tonumber(known) < tonumber(score) then
  redis.call('ZADD', KEYS[2], score, ARGV[3])
end
local holder = redis.call('GET', KEYS[3])
if ARGV[4] == '' or holder and string.sub(holder, 1, #ARGV[5]) ~= ARGV[5] then return 'claimed' end
if holder and holder ~= ARGV[4] and ARGV[7] ~= '' then
  redis.call('ZADD', KEYS[4], ARGV[8], ARGV[7])
end
redis.call('SET', KEYS[3], ARGV[4], 'PX', ARGV[6])
return 'unchanged'
)lua";

// KEYS: queue, unclear, claim, mark of the prefix.
// ARGV: 1 member, 2 score, 3 claim value, 4 unclear member or what it begins with, 5 "key" or
// "prefix". 6 the oldest unclear end that counts, 7 milliseconds for which a mark is kept.
// The mark of a prefix is set in any case, as uploads that ran meanwhile must be sent again. An
// unclear end that is young enough keeps the member in the queue; one of a removal brings nothing.
inline constexpr char end_delete_text[] = R"lua(
local score = redis.call('ZSCORE', KEYS[1], ARGV[1])
local held = redis.call('GET', KEYS[3]) == ARGV[3]
if ARGV[5] == 'prefix' then redis.call('SET', KEYS[4], '', 'PX', ARGV[7]) end
if not held then return score and 'claimed' or 'gone' end
redis.call('DEL', KEYS[3])
if not score then return 'gone' end
if score ~= ARGV[2] then return 'renewed' end
local oldest = tonumber(ARGV[6])
if ARGV[5] == 'key' then
  if tonumber(redis.call('ZSCORE', KEYS[2], ARGV[4]) or -1) >= oldest then return 'unclear' end
else
  for _, member in ipairs(redis.call('ZRANGEBYSCORE', KEYS[2], oldest, '+inf')) do
    if string.sub(member, 1, #ARGV[4]) == ARGV[4] and string.sub(member, -6) ~= ':older' then
      return 'unclear'
    end
  end
end
redis.call('ZREM', KEYS[1], ARGV[1])
return 'unchanged'
)lua";

// KEYS: claim. ARGV: milliseconds, the value of the claim.
inline constexpr char renew_text[] = R"lua(
if redis.call('GET', KEYS[1]) ~= ARGV[2] then return 'gone' end
redis.call('PEXPIRE', KEYS[1], ARGV[1])
return 'unchanged'
)lua";

// KEYS: uploads, deletions, unclear. ARGV: the oldest deletion to keep, the oldest unclear end, the
// oldest deletion to keep at all. Until then it is kept while an older upload is queued.
inline constexpr char trim_text[] = R"lua(
local oldest = redis.call('ZRANGE', KEYS[1], 0, 0, 'WITHSCORES')[2]
local keep = ARGV[1]
if oldest and tonumber(oldest) < tonumber(keep) then
  keep = tonumber(oldest) < tonumber(ARGV[3]) and ARGV[3] or oldest
end
redis.call('ZREMRANGEBYSCORE', KEYS[2], '-inf', '(' .. keep)
redis.call('ZREMRANGEBYSCORE', KEYS[3], '-inf', '(' .. ARGV[2])
return 'unchanged'
)lua";

// KEYS: uploads, deletions. ARGV: member, score, deletion of the key, deletion of the prefix.
// NX: a member that is there keeps its score, which may belong to a newer file.
inline constexpr char queue_again_text[] = R"lua(
local deleted = math.max(tonumber(redis.call('ZSCORE', KEYS[2], ARGV[3]) or -1),
                         tonumber(redis.call('ZSCORE', KEYS[2], ARGV[4]) or -1))
if deleted > tonumber(ARGV[2]) + 1 then return 'deleted' end
redis.call('ZADD', KEYS[1], 'NX', ARGV[2], ARGV[1])
return 'unchanged'
)lua";

#endif
