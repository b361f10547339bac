/* The kinds of media, as the quota engine counts them and as file storage keeps them. */
#ifndef SPOOLCAP_KINDS_H
#define SPOOLCAP_KINDS_H

/* Of the quota engine. */
enum quota_kind {
  QUOTA_FAX,
  QUOTA_SOUND,
  QUOTA_RECORDING,
  QUOTA_VOICEMAIL,
  QUOTA_MUSIC,
  QUOTA_ALL_KINDS
};

/* Resource types of file storage. Any other value is "misc": it has an object key, but no local
 * folder and no table. */
enum { QX_STORAGE_RECORDING = 1, QX_STORAGE_VOICEMAIL = 2, QX_STORAGE_FAX = 3 };

#endif
