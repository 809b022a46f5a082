-- Bytes that lost their row, or never got one, are freed while the server runs.

-- Single values of the host. 'store_id': the id that the folder of the stored bytes carries too. 'running_seconds': how
-- long servers have run on this catalogue. Ages are counted in it, because nobody can set this clock.
CREATE TABLE platform.host_values (
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL
);
INSERT INTO platform.host_values (name, value) VALUES ('running_seconds', '0');

-- Whether any row names certain bytes is asked by their url alone.
CREATE INDEX platform.local_object_url ON local_object (url);
CREATE INDEX platform.local_object_task_url ON local_object_task (url);

-- From now on released_at counts running seconds; -1 until the host has seen the entry. kind: 0 overwritten or
-- abandoned, freed soon; 1 of a removed object, kept as long as the server was told to; 2 of a removed object, perhaps
-- gone already.
ALTER TABLE platform.released_bytes ADD COLUMN kind INTEGER NOT NULL DEFAULT 0;
UPDATE platform.released_bytes SET released_at = -1;
CREATE INDEX platform.released_bytes_time ON released_bytes (released_at);
DROP INDEX platform.released_bytes_age;
CREATE INDEX platform.released_bytes_age ON released_bytes (kind, released_at);
CREATE INDEX platform.released_bytes_url ON released_bytes (url);

-- Urls whose bytes were freed because no row named them, and when, in running seconds. No row may name them any more: a
-- request that was so slow that its bytes were given up fails, instead of making an object without bytes.
CREATE TABLE platform.freed_bytes (
  url TEXT PRIMARY KEY,
  freed_at INTEGER NOT NULL
) WITHOUT ROWID;
CREATE INDEX platform.freed_bytes_time ON freed_bytes (freed_at);

CREATE TRIGGER platform.local_object_added BEFORE INSERT ON local_object
WHEN EXISTS (SELECT 1 FROM freed_bytes WHERE url = NEW.url)
BEGIN
  SELECT RAISE(ABORT, 'the bytes of this object were freed');
END;

CREATE TRIGGER platform.local_object_changed BEFORE UPDATE OF url ON local_object
WHEN EXISTS (SELECT 1 FROM freed_bytes WHERE url = NEW.url)
BEGIN
  SELECT RAISE(ABORT, 'the bytes of this object were freed');
END;

CREATE TRIGGER platform.local_object_task_added BEFORE INSERT ON local_object_task
WHEN EXISTS (SELECT 1 FROM freed_bytes WHERE url = NEW.url)
BEGIN
  SELECT RAISE(ABORT, 'the bytes of this upload were freed');
END;

-- An overwritten object leaves the bytes that it had before.
DROP TRIGGER platform.local_object_overwritten;
CREATE TRIGGER platform.local_object_overwritten AFTER UPDATE OF url ON local_object
WHEN OLD.url <> NEW.url
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  VALUES (OLD.url, OLD.bucket_name, OLD.name, -1);
END;

-- An object is inserted only when the running server knows none of that name: a row that is there all the same is one
-- whose removal failed, and would come back in the new one's place at the next start.
DROP TRIGGER platform.local_object_replaced;
CREATE TRIGGER platform.local_object_replaced BEFORE INSERT ON local_object
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  SELECT url, bucket_name, name, -1 FROM local_object
  WHERE bucket_name = NEW.bucket_name AND name = NEW.name AND is_deleted = 0 AND url <> NEW.url;
  DELETE FROM local_object WHERE bucket_name = NEW.bucket_name AND name = NEW.name AND is_deleted = 0;
END;

-- A removed object leaves its bytes for a while, unless they were freed with it.
CREATE TRIGGER platform.local_object_removed AFTER DELETE ON local_object
WHEN NOT EXISTS (SELECT 1 FROM released_bytes WHERE url = OLD.url AND kind = 0)
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at, kind)
  VALUES (OLD.url, OLD.bucket_name, OLD.name, -1, 2);
END;

-- A task that ends without having become an object leaves its bytes too.
DROP TRIGGER platform.local_object_task_ended;
CREATE TRIGGER platform.local_object_task_ended AFTER DELETE ON local_object_task
WHEN OLD.part_num = 1 AND NOT EXISTS (SELECT 1 FROM local_object WHERE url = OLD.url)
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  VALUES (OLD.url, OLD.bucket_name, OLD.object_name, -1);
END;
