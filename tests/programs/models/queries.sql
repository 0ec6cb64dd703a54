-- For sqlite3: a mesh in tables, with indices, joins, windows, triggers, a tree walked, rows deleted and a vacuum.
PRAGMA cache_size = -200000;
PRAGMA temp_store = memory;
CREATE TABLE node (id INTEGER PRIMARY KEY, x REAL, y REAL, label TEXT);
CREATE TABLE element (id INTEGER PRIMARY KEY, a INTEGER REFERENCES node, b INTEGER, c INTEGER, d INTEGER);
CREATE TABLE log (what TEXT, id INTEGER);
CREATE TRIGGER gone AFTER DELETE ON element BEGIN INSERT INTO log VALUES ('gone', old.id); END;
BEGIN;
WITH RECURSIVE k(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM k WHERE i < 300 * 300 - 1)
INSERT INTO node SELECT i, (i % 300) / 299.0, (i / 300) / 299.0, 'node ' || hex(i * 2654435761 % 20011) FROM k;
INSERT INTO element SELECT id, id, id + 1, id + 301, id + 300 FROM node WHERE id % 300 < 299 AND id < 299 * 300;
COMMIT;
CREATE INDEX by_label ON node(label, x);
CREATE INDEX by_a ON element(a, b);
CREATE INDEX by_c ON element(c, d);
ANALYZE;
SELECT count(*), sum(x), max(label) FROM node;
SELECT e.id, f.id, n.label FROM element e JOIN element f ON f.a = e.b JOIN node n ON n.id = f.c
  WHERE e.id % 977 = 0 ORDER BY n.label, e.id LIMIT 20;
SELECT label, count(*) AS n, group_concat(id) FROM (SELECT label, id FROM node ORDER BY id)
  GROUP BY label HAVING n > 1 ORDER BY label LIMIT 5;
SELECT sum(r) FROM (SELECT rank() OVER (PARTITION BY id % 50 ORDER BY label DESC, id) AS r FROM node);
SELECT length(group_concat(label)), length(json_group_array(label)) FROM node;
WITH RECURSIVE walk(id, depth) AS
  (SELECT 0, 0 UNION SELECT e.c, depth + 1 FROM walk JOIN element e ON e.a = walk.id)
SELECT count(*), max(depth), max(id) FROM walk;
SELECT count(*) FROM node a JOIN node b ON a.label = b.label WHERE a.id < b.id;
DELETE FROM element WHERE id % 3 = 0;
SELECT count(*), sum(id) FROM log;
VACUUM;
PRAGMA integrity_check;
