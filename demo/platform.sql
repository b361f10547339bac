-- A small platform: 2 resellers, 4 clients, 12 users with extensions and what they keep in tables.

INSERT INTO client (id, parent_client_id, level, name, status, phonestatus) VALUES
  (10, 0, 10, 'North Telephony', 1, 1),
  (20, 0, 10, 'South Telephony', 1, 1),
  (11, 10, 50, 'Bakery Brown', 1, 1),
  (12, 10, 50, 'City Library', 1, 1),
  (21, 20, 50, 'Harbour Office', 1, 1),
  (22, 20, 50, 'Garden Centre', 1, 1),
  (111, 11, 100, 'Ann Archer', 1, 1),
  (112, 11, 100, 'Bob Baker', 1, 1),
  (113, 11, 100, 'Cleo Clark', 1, 1),
  (121, 12, 100, 'Dora Dunn', 1, 1),
  (122, 12, 100, 'Emil Evans', 1, 1),
  (123, 12, 100, 'Fay Ford', 1, 1),
  (211, 21, 100, 'Gus Gray', 1, 1),
  (212, 21, 100, 'Hana Hill', 1, 1),
  (213, 21, 100, 'Ivo Irwin', 1, 1),
  (221, 22, 100, 'June Jones', 1, 1),
  (222, 22, 100, 'Karl King', 1, 1),
  (223, 22, 100, 'Lea Lund', 1, 1);

INSERT INTO hs_account (userID, username)
  SELECT id, LOWER(IF(level = 100, SUBSTRING_INDEX(name, ' ', 1), REPLACE(name, ' ', '.')))
  FROM client ORDER BY id;

-- Limits, in KiB.
INSERT INTO client_prefs (client_id, param, value)
  SELECT id, param, CASE level WHEN 10 THEN 4194304 WHEN 50 THEN 1048576 ELSE 262144 END
  FROM client JOIN (SELECT 'fax_storage' AS param UNION SELECT 'max_sound' UNION SELECT 'max_record'
                    UNION SELECT 'max_voice' UNION SELECT 'max_moh') AS kinds;

INSERT INTO misc (param, value) VALUES ('ext_length', '3'), ('ext_separator', '*');

-- One extension for every user, and a second one for every third.
INSERT INTO extension (client_id, number, extended_number, type)
  SELECT id, number, CONCAT(LPAD(parent_client_id, 4, '0'), '*', number), 'term'
  FROM (SELECT id, parent_client_id, LPAD(100 + MOD(id, 10), 3, '0') AS number
        FROM client WHERE level = 100
        UNION ALL
        SELECT id, parent_client_id, LPAD(200 + MOD(id, 10), 3, '0')
        FROM client WHERE level = 100 AND MOD(id, 10) = 3) AS numbers
  ORDER BY id, number;

-- Every extension has recordings, two of three have voicemail, every other one faxes.
INSERT INTO extension_recording (extension_id, filesize, filename)
  SELECT e.id, 40000 + MOD(e.id * 7919 + seq * 104729, 900000), CONCAT('call-', seq)
  FROM extension AS e JOIN seq_1_to_25;
INSERT INTO extension_voicemail (extension_id, filesize, filename, folder)
  SELECT e.id, 8000 + MOD(e.id * 6271 + seq * 15731, 120000), CONCAT('msg-', seq), 'INBOX'
  FROM extension AS e JOIN seq_1_to_8 WHERE MOD(e.id, 3) > 0;
INSERT INTO extension_fax_center (extension_id, filesize, file_name)
  SELECT e.id, 20000 + MOD(e.id * 3571 + seq * 9973, 60000), CONCAT('fax-', seq)
  FROM extension AS e JOIN seq_1_to_4 WHERE MOD(e.id, 2) = 0;
