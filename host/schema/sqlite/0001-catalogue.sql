-- The catalogue: buckets, objects, multipart upload tasks, and the volumes that stored bytes lie on.
--
-- Rows are removed for good, never marked; is_deleted serves people who want to hide a row by hand. Names are not
-- unique on purpose: a renamed bucket, or an object whose removal the database refused, must not get in the way of a
-- new one of that name.

CREATE TABLE platform.local_bucket (
  id INTEGER PRIMARY KEY,
  guid TEXT NOT NULL DEFAULT '',
  name TEXT NOT NULL,
  acl INTEGER NOT NULL DEFAULT 0,
  location TEXT NOT NULL DEFAULT '',
  cycle INTEGER NOT NULL DEFAULT -1,
  size INTEGER NOT NULL DEFAULT -1,
  update_time TEXT NOT NULL DEFAULT '',
  is_deleted INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE platform.local_object (
  id INTEGER PRIMARY KEY,
  guid TEXT NOT NULL DEFAULT '',
  name TEXT NOT NULL,
  bucket_name TEXT NOT NULL,
  size INTEGER NOT NULL DEFAULT 0,
  update_time TEXT NOT NULL DEFAULT '',
  url TEXT NOT NULL DEFAULT '',
  is_deleted INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX platform.local_object_name ON local_object (bucket_name, name);

CREATE TABLE platform.local_object_task (
  id INTEGER PRIMARY KEY,
  task_id TEXT NOT NULL,
  object_name TEXT NOT NULL,
  bucket_name TEXT NOT NULL,
  size INTEGER NOT NULL DEFAULT 0,
  part_num INTEGER NOT NULL,
  update_time TEXT NOT NULL DEFAULT '',
  url TEXT NOT NULL DEFAULT '',
  is_deleted INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX platform.local_object_task_id ON local_object_task (task_id);

-- What the first four characters of a location text stand for. Written by the host, one row per volume.
CREATE TABLE platform.picture_url_encrypt (
  encrypt_url TEXT PRIMARY KEY,
  url TEXT NOT NULL
);

-- The next row id of each table.
CREATE TABLE platform.sequences (
  name TEXT PRIMARY KEY,
  next_value INTEGER NOT NULL
);
INSERT INTO platform.sequences (name, next_value) VALUES
  ('platform.local_bucket_id_seq', 1),
  ('platform.local_object_id_seq', 1),
  ('platform.local_object_task_id_seq', 1);

-- Stored bytes that lost their catalogue row. The host frees them once nobody can be reading them any more.
CREATE TABLE platform.released_bytes (
  id INTEGER PRIMARY KEY,
  url TEXT NOT NULL,
  bucket_name TEXT NOT NULL,
  object_name TEXT NOT NULL,
  released_at INTEGER NOT NULL
);
CREATE INDEX platform.released_bytes_age ON released_bytes (released_at);

-- An overwritten object leaves the bytes that it had before.
CREATE TRIGGER platform.local_object_overwritten AFTER UPDATE OF url ON local_object
WHEN OLD.url <> NEW.url
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  VALUES (OLD.url, OLD.bucket_name, OLD.name, CAST(strftime('%s', 'now') AS INTEGER));
END;

-- An object is inserted only when the running server knows none of that name: a row that is there all the same is one
-- whose removal failed, and would come back in the new one's place at the next start.
CREATE TRIGGER platform.local_object_replaced BEFORE INSERT ON local_object
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  SELECT url, bucket_name, name, CAST(strftime('%s', 'now') AS INTEGER) FROM local_object
  WHERE bucket_name = NEW.bucket_name AND name = NEW.name AND is_deleted = 0 AND url <> NEW.url;
  DELETE FROM local_object WHERE bucket_name = NEW.bucket_name AND name = NEW.name AND is_deleted = 0;
END;

-- A task that ends without having become an object leaves its bytes too.
CREATE TRIGGER platform.local_object_task_ended AFTER DELETE ON local_object_task
WHEN OLD.part_num = 1 AND NOT EXISTS (
  SELECT 1 FROM local_object
  WHERE bucket_name = OLD.bucket_name AND name = OLD.object_name AND url = OLD.url)
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  VALUES (OLD.url, OLD.bucket_name, OLD.object_name, CAST(strftime('%s', 'now') AS INTEGER));
END;
