-- What every account's subtree really uses, computed in a way of its own: the tables as they are,
-- and the table `media` (account, kind, bytes) of what lies on disk.
WITH RECURSIVE subtree (top, id) AS (
  SELECT id, id FROM client
  UNION ALL
  SELECT subtree.top, client.id FROM subtree JOIN client ON client.parent_client_id = subtree.id
), used (id, kind, bytes) AS (
  SELECT id, kind, 0 FROM client JOIN (SELECT 'Fax' AS kind UNION SELECT 'Sounds' UNION
    SELECT 'Recording' UNION SELECT 'Voicemail' UNION SELECT 'Music on hold') AS kinds
  UNION ALL SELECT client_id, 'Fax', filesize
    FROM extension_fax_center AS f JOIN extension AS e ON e.id = f.extension_id
  UNION ALL SELECT client_id, 'Recording', filesize
    FROM extension_recording AS f JOIN extension AS e ON e.id = f.extension_id
  UNION ALL SELECT client_id, 'Voicemail', filesize
    FROM extension_voicemail AS f JOIN extension AS e ON e.id = f.extension_id
  UNION ALL SELECT account, kind, bytes FROM media
)
SELECT top, kind, SUM(bytes) FROM subtree JOIN used USING (id) GROUP BY top, kind
UNION ALL
SELECT top, 'Total', SUM(bytes) FROM subtree JOIN used USING (id) GROUP BY top;
