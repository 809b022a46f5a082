-- What a protocol tells about the bytes of an object beside their length: entity tag, content type, metadata of users.
-- The server writes one text per object and reads it back. It belongs to the bytes: it goes when the object is removed,
-- and when other bytes are stored under its name.
CREATE TABLE platform.local_object_attributes (
  object_id INTEGER PRIMARY KEY,
  attributes TEXT NOT NULL
);

CREATE TRIGGER platform.local_object_attributes_replaced AFTER UPDATE OF url ON local_object
WHEN OLD.url <> NEW.url
BEGIN
  DELETE FROM local_object_attributes WHERE object_id = OLD.id;
END;

CREATE TRIGGER platform.local_object_attributes_removed AFTER DELETE ON local_object
BEGIN
  DELETE FROM local_object_attributes WHERE object_id = OLD.id;
END;
