-- What a protocol tells about the bytes of an object beside their length; see the script of this name for the other
-- database.
CREATE TABLE platform.local_object_attributes (
  object_id bigint PRIMARY KEY,
  attributes text COLLATE "C" NOT NULL
);

CREATE FUNCTION platform.drop_attributes() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM platform.local_object_attributes WHERE object_id = OLD.id;
  RETURN NULL;
END $$;
CREATE TRIGGER local_object_attributes_replaced AFTER UPDATE OF url ON platform.local_object
FOR EACH ROW WHEN (OLD.url <> NEW.url) EXECUTE FUNCTION platform.drop_attributes();
CREATE TRIGGER local_object_attributes_removed AFTER DELETE ON platform.local_object
FOR EACH ROW EXECUTE FUNCTION platform.drop_attributes();
