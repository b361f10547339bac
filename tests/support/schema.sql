-- The platform's tables as far as they are read here, with the indexes that the statements need.
-- Columns that the platform leaves empty at times may be NULL.

CREATE TABLE client (
  id INT UNSIGNED NOT NULL PRIMARY KEY,
  parent_client_id INT UNSIGNED NULL,
  level SMALLINT NULL,                      -- 0 root, 10 reseller, 50 client, 100 extension owner
  name VARCHAR(255) NULL,
  status INT NULL,
  phonestatus INT NULL,
  timezone_id INT UNSIGNED NULL,
  KEY by_parent (parent_client_id, level),  -- the walk down the tree
  KEY by_level (level)                      -- the choice of all resellers
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE hs_account (
  id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  userID INT UNSIGNED NULL,
  username VARCHAR(191) NULL,
  KEY by_account (userID, username),
  KEY by_login (username)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE client_prefs (
  client_id INT UNSIGNED NOT NULL,
  param VARCHAR(64) NOT NULL,
  value VARCHAR(255) NULL,
  PRIMARY KEY (client_id, param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE extension (
  id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  client_id INT UNSIGNED NULL,              -- the owner
  number VARCHAR(32) NULL,                  -- short number, unique within one client's users
  extended_number VARCHAR(64) NULL,         -- the full one
  alias VARCHAR(64) NULL,
  type VARCHAR(32) NULL,
  KEY by_owner (client_id, number),
  KEY by_number (number),
  UNIQUE KEY by_extended_number (extended_number),
  KEY by_alias (alias)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE extension_prefs (
  extension_id INT UNSIGNED NOT NULL,
  param VARCHAR(64) NOT NULL,
  value VARCHAR(255) NULL,
  PRIMARY KEY (extension_id, param)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Stored files. The index on (extension_id, filesize) holds all that a sum of sizes reads.
CREATE TABLE extension_recording (
  id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  rid BIGINT UNSIGNED NULL,
  extension_id INT UNSIGNED NOT NULL,
  filesize BIGINT NULL,
  ext VARCHAR(16) NOT NULL DEFAULT 'wav',
  filename VARCHAR(255) NULL,
  folder VARCHAR(64) NULL,
  callid VARCHAR(128) NULL,
  flow VARCHAR(16) NULL,
  se VARCHAR(16) NULL,
  az VARCHAR(255) NULL,
  created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
  KEY sum_of_sizes (extension_id, filesize),
  KEY by_call (callid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE extension_voicemail (
  id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  extension_id INT UNSIGNED NOT NULL,
  filesize BIGINT NULL,
  ext VARCHAR(16) NOT NULL DEFAULT 'wav',
  filename VARCHAR(255) NULL,
  folder VARCHAR(64) NULL,
  callid VARCHAR(128) NULL,
  flow VARCHAR(16) NULL,
  se VARCHAR(16) NULL,
  az VARCHAR(255) NULL,
  created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
  KEY sum_of_sizes (extension_id, filesize),
  KEY by_folder (extension_id, folder)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE extension_fax_center (
  id BIGINT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  extension_id INT UNSIGNED NOT NULL,
  filesize BIGINT NULL,
  file_name VARCHAR(255) NULL,
  folder VARCHAR(64) NULL,
  se VARCHAR(16) NULL,
  az VARCHAR(255) NULL,
  created TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP,
  KEY sum_of_sizes (extension_id, filesize)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE misc (
  param VARCHAR(64) NOT NULL PRIMARY KEY,
  value VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE timezone (
  id INT UNSIGNED NOT NULL PRIMARY KEY,
  name VARCHAR(64) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE codec (
  id INT UNSIGNED NOT NULL PRIMARY KEY,
  uname VARCHAR(32) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE extension_codec_rel (
  extension_id INT UNSIGNED NOT NULL,
  codec_id INT UNSIGNED NOT NULL,
  priority INT NOT NULL,
  PRIMARY KEY (extension_id, codec_id)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE ser_subscriber (
  id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
  username VARCHAR(64) NOT NULL,
  can_register TINYINT NULL,
  UNIQUE KEY by_username (username)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Caller screening; the lists are numbers joined with ",".
CREATE TABLE screening (
  extension_id INT UNSIGNED NOT NULL PRIMARY KEY,
  behaviour VARCHAR(32) NULL,
  allowed TEXT NULL,
  denied TEXT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE PROCEDURE get_screening_prefs(IN full_number VARCHAR(64)) READS SQL DATA
  SELECT behaviour, allowed, denied FROM screening, extension
  WHERE extension.id=screening.extension_id AND extension.extended_number=full_number;
