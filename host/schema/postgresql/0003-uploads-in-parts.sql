-- Uploads in parts of any sizes. Each part is stored once. When the upload has become an object, its parts' rows stay:
-- they are what names the bytes of the object. The upload tasks of the other protocol are in a table of their own.
--
-- While host_values has the row 'move_from', the rows are copied from another catalogue, in any order: nothing is compared
-- with other rows then.

-- The uploads that are open. object_url is the url that the row of the object will have: 'parts:' and an id.
CREATE TABLE platform.local_upload (
  object_url text COLLATE "C" PRIMARY KEY,
  object_name text COLLATE "C" NOT NULL,
  bucket_name text COLLATE "C" NOT NULL,
  sort_key text COLLATE "C" NOT NULL,
  attributes text COLLATE "C" NOT NULL,
  begun text COLLATE "C" NOT NULL,
  update_time text COLLATE "C" NOT NULL
);
CREATE INDEX local_upload_bucket ON platform.local_upload (bucket_name);

-- The parts of an open upload, and those that an object consists of. The rows of released parts go with their bytes.
CREATE TABLE platform.local_upload_part (
  object_url text COLLATE "C" NOT NULL,
  part_num bigint NOT NULL,
  size bigint NOT NULL,
  url text COLLATE "C" NOT NULL,
  attributes text COLLATE "C" NOT NULL,
  update_time text COLLATE "C" NOT NULL,
  PRIMARY KEY (object_url, part_num)
);
CREATE INDEX local_upload_part_url ON platform.local_upload_part (url);

-- The sizes and urls of the parts that an object consists of, as one text. It counts only beside a url of parts.
ALTER TABLE platform.local_object ADD COLUMN pieces text COLLATE "C" NOT NULL DEFAULT '';

CREATE TRIGGER local_upload_part_added BEFORE INSERT ON platform.local_upload_part
FOR EACH ROW EXECUTE FUNCTION platform.refuse_freed_bytes('part');

CREATE FUNCTION platform.refuse_late_part() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  IF NOT EXISTS (SELECT 1 FROM platform.local_upload WHERE object_url = NEW.object_url)
     AND NOT EXISTS (SELECT 1 FROM platform.host_values WHERE name = 'move_from') THEN
    RAISE EXCEPTION 'the upload of this part has ended';
  END IF;
  RETURN NEW;
END $$;
CREATE TRIGGER local_upload_part_late BEFORE INSERT ON platform.local_upload_part
FOR EACH ROW EXECUTE FUNCTION platform.refuse_late_part();

-- A part that is replaced, or left out of the object, leaves its bytes.
CREATE FUNCTION platform.release_part() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  INSERT INTO platform.released_bytes (url, bucket_name, object_name, released_at)
  SELECT OLD.url, bucket_name, object_name, -1 FROM platform.local_upload WHERE object_url = OLD.object_url;
  RETURN NULL;
END $$;
CREATE TRIGGER local_upload_part_replaced AFTER UPDATE OF url ON platform.local_upload_part
FOR EACH ROW WHEN (OLD.url <> NEW.url) EXECUTE FUNCTION platform.release_part();
CREATE TRIGGER local_upload_part_left_out AFTER DELETE ON platform.local_upload_part
FOR EACH ROW EXECUTE FUNCTION platform.release_part();

-- An upload that ends without having become an object leaves the bytes of all its parts, under the one url.
CREATE FUNCTION platform.release_ended_upload() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  IF NOT EXISTS (SELECT 1 FROM platform.local_object WHERE url = OLD.object_url) THEN
    INSERT INTO platform.released_bytes (url, bucket_name, object_name, released_at)
    VALUES (OLD.object_url, OLD.bucket_name, OLD.object_name, -1);
  END IF;
  RETURN NULL;
END $$;
CREATE TRIGGER local_upload_ended AFTER DELETE ON platform.local_upload
FOR EACH ROW EXECUTE FUNCTION platform.release_ended_upload();

-- An object is made of parts while the upload is open, and of all of its bytes: a part that another request has
-- replaced or removed is missing in the sum. An object whose removal is undone has its parts still. Sizes of objects
-- are kept in 32 bits.
CREATE FUNCTION platform.refuse_missing_parts() RETURNS trigger LANGUAGE plpgsql AS $$
DECLARE
  needs_upload boolean := true;
BEGIN
  IF EXISTS (SELECT 1 FROM platform.host_values WHERE name = 'move_from') THEN
    RETURN NEW;
  END IF;
  IF TG_OP = 'UPDATE' THEN
    needs_upload := NEW.url <> OLD.url;
  ELSIF EXISTS (SELECT 1 FROM platform.released_bytes WHERE url = NEW.url AND kind IN (1, 2)) THEN
    needs_upload := false;
  END IF;
  IF needs_upload AND NOT EXISTS (SELECT 1 FROM platform.local_upload WHERE object_url = NEW.url)
     OR ((SELECT COALESCE(SUM(size), 0) FROM platform.local_upload_part WHERE object_url = NEW.url) - NEW.size)
        % 4294967296 <> 0 THEN
    RAISE EXCEPTION 'the parts of this object are not there';
  END IF;
  RETURN NEW;
END $$;
CREATE TRIGGER local_object_of_parts_added BEFORE INSERT ON platform.local_object
FOR EACH ROW WHEN (substr(NEW.url, 1, 6) = 'parts:') EXECUTE FUNCTION platform.refuse_missing_parts();
-- Only its attributes may change once it is made.
CREATE TRIGGER local_object_of_parts_changed BEFORE UPDATE OF url ON platform.local_object
FOR EACH ROW WHEN (substr(NEW.url, 1, 6) = 'parts:') EXECUTE FUNCTION platform.refuse_missing_parts();

CREATE FUNCTION platform.refuse_other_parts() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  IF EXISTS (SELECT 1 FROM platform.local_upload_part WHERE object_url = NEW.url AND strpos(NEW.pieces, url) = 0)
     AND NOT EXISTS (SELECT 1 FROM platform.host_values WHERE name = 'move_from') THEN
    RAISE EXCEPTION 'the parts of this object are others';
  END IF;
  RETURN NEW;
END $$;
CREATE TRIGGER local_object_pieces_set BEFORE UPDATE OF pieces ON platform.local_object
FOR EACH ROW WHEN (NEW.pieces <> '') EXECUTE FUNCTION platform.refuse_other_parts();

CREATE FUNCTION platform.forget_pieces() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  NEW.pieces := '';
  RETURN NEW;
END $$;
CREATE TRIGGER local_object_pieces_replaced BEFORE UPDATE OF url ON platform.local_object
FOR EACH ROW WHEN (OLD.url <> NEW.url AND OLD.pieces <> '' AND NEW.pieces = OLD.pieces) EXECUTE FUNCTION platform.forget_pieces();

-- Uploads go with their bucket, and follow it to another name.
CREATE FUNCTION platform.end_uploads_of_bucket() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM platform.local_upload WHERE bucket_name = OLD.name;
  RETURN NULL;
END $$;
CREATE TRIGGER local_upload_bucket_removed AFTER DELETE ON platform.local_bucket
FOR EACH ROW EXECUTE FUNCTION platform.end_uploads_of_bucket();

CREATE FUNCTION platform.rename_bucket_of_uploads() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  UPDATE platform.local_upload SET bucket_name = NEW.name WHERE bucket_name = OLD.name;
  RETURN NULL;
END $$;
CREATE TRIGGER local_upload_bucket_renamed AFTER UPDATE OF name ON platform.local_bucket
FOR EACH ROW WHEN (OLD.name <> NEW.name) EXECUTE FUNCTION platform.rename_bucket_of_uploads();
