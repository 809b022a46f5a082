-- Uploads in parts of any sizes. Each part is stored once. When the upload has become an object, its parts' rows stay:
-- they are what names the bytes of the object. The upload tasks of the other protocol are in a table of their own.
--
-- While host_values has the row 'move_from', the rows are copied from another catalogue, in any order: nothing is compared
-- with other rows then.

-- The uploads that are open. object_url is the url that the row of the object will have: 'parts:' and an id.
CREATE TABLE platform.local_upload (
  object_url TEXT PRIMARY KEY,
  object_name TEXT NOT NULL,
  bucket_name TEXT NOT NULL,
  sort_key TEXT NOT NULL,
  attributes TEXT NOT NULL,
  begun TEXT NOT NULL,
  update_time TEXT NOT NULL
);
CREATE INDEX platform.local_upload_bucket ON local_upload (bucket_name);

-- The parts of an open upload, and those that an object consists of. The rows of released parts go with their bytes.
CREATE TABLE platform.local_upload_part (
  object_url TEXT NOT NULL,
  part_num INTEGER NOT NULL,
  size INTEGER NOT NULL,
  url TEXT NOT NULL,
  attributes TEXT NOT NULL,
  update_time TEXT NOT NULL,
  PRIMARY KEY (object_url, part_num)
);
CREATE INDEX platform.local_upload_part_url ON local_upload_part (url);

-- The sizes and urls of the parts that an object consists of, as one text. It counts only beside a url of parts.
ALTER TABLE platform.local_object ADD COLUMN pieces TEXT NOT NULL DEFAULT '';

CREATE TRIGGER platform.local_upload_part_added BEFORE INSERT ON local_upload_part
WHEN EXISTS (SELECT 1 FROM freed_bytes WHERE url = NEW.url)
BEGIN
  SELECT RAISE(ABORT, 'the bytes of this part were freed');
END;

CREATE TRIGGER platform.local_upload_part_late BEFORE INSERT ON local_upload_part
WHEN NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.object_url)
  AND NOT EXISTS (SELECT 1 FROM host_values WHERE name = 'move_from')
BEGIN
  SELECT RAISE(ABORT, 'the upload of this part has ended');
END;

-- A part that is replaced, or left out of the object, leaves its bytes.
CREATE TRIGGER platform.local_upload_part_replaced AFTER UPDATE OF url ON local_upload_part
WHEN OLD.url <> NEW.url
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  SELECT OLD.url, bucket_name, object_name, -1 FROM local_upload WHERE object_url = OLD.object_url;
END;

CREATE TRIGGER platform.local_upload_part_left_out AFTER DELETE ON local_upload_part
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  SELECT OLD.url, bucket_name, object_name, -1 FROM local_upload WHERE object_url = OLD.object_url;
END;

-- An upload that ends without having become an object leaves the bytes of all its parts, under the one url.
CREATE TRIGGER platform.local_upload_ended AFTER DELETE ON local_upload
WHEN NOT EXISTS (SELECT 1 FROM local_object WHERE url = OLD.object_url)
BEGIN
  INSERT INTO released_bytes (url, bucket_name, object_name, released_at)
  VALUES (OLD.object_url, OLD.bucket_name, OLD.object_name, -1);
END;

-- An object is made of parts while the upload is open, and of all of its bytes: a part that another request has
-- replaced or removed is missing in the sum. An object whose removal is undone has its parts still. Sizes of objects
-- are kept in 32 bits.
CREATE TRIGGER platform.local_object_of_parts_added BEFORE INSERT ON local_object
WHEN substr(NEW.url, 1, 6) = 'parts:'
  AND NOT EXISTS (SELECT 1 FROM host_values WHERE name = 'move_from')
  AND (NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.url)
         AND NOT EXISTS (SELECT 1 FROM released_bytes WHERE url = NEW.url AND kind IN (1, 2))
       OR ((SELECT COALESCE(SUM(size), 0) FROM local_upload_part WHERE object_url = NEW.url) - NEW.size)
         % 4294967296 <> 0)
BEGIN
  SELECT RAISE(ABORT, 'the parts of this object are not there');
END;

-- Only its attributes may change once it is made.
CREATE TRIGGER platform.local_object_of_parts_changed BEFORE UPDATE OF url ON local_object
WHEN substr(NEW.url, 1, 6) = 'parts:'
  AND NOT EXISTS (SELECT 1 FROM host_values WHERE name = 'move_from')
  AND (NEW.url <> OLD.url AND NOT EXISTS (SELECT 1 FROM local_upload WHERE object_url = NEW.url)
       OR ((SELECT COALESCE(SUM(size), 0) FROM local_upload_part WHERE object_url = NEW.url) - NEW.size)
         % 4294967296 <> 0)
BEGIN
  SELECT RAISE(ABORT, 'the parts of this object are not there');
END;

CREATE TRIGGER platform.local_object_pieces_set BEFORE UPDATE OF pieces ON local_object
WHEN NEW.pieces <> ''
  AND NOT EXISTS (SELECT 1 FROM host_values WHERE name = 'move_from')
  AND EXISTS (SELECT 1 FROM local_upload_part WHERE object_url = NEW.url AND instr(NEW.pieces, url) = 0)
BEGIN
  SELECT RAISE(ABORT, 'the parts of this object are others');
END;

CREATE TRIGGER platform.local_object_pieces_replaced AFTER UPDATE OF url ON local_object
WHEN OLD.url <> NEW.url AND OLD.pieces <> '' AND NEW.pieces = OLD.pieces
BEGIN
  UPDATE local_object SET pieces = '' WHERE id = NEW.id;
END;

-- Uploads go with their bucket, and follow it to another name.
CREATE TRIGGER platform.local_upload_bucket_removed AFTER DELETE ON local_bucket
BEGIN
  DELETE FROM local_upload WHERE bucket_name = OLD.name;
END;

CREATE TRIGGER platform.local_upload_bucket_renamed AFTER UPDATE OF name ON local_bucket
WHEN OLD.name <> NEW.name
BEGIN
  UPDATE local_upload SET bucket_name = NEW.name WHERE bucket_name = OLD.name;
END;
