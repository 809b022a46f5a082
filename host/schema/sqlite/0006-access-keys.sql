-- Further keys of the S3 protocol, which operators make and remove while the server runs. What a key may do, and its
-- secret, are in one text that is sealed with a key from outside of the database: who has a copy of the database alone
-- cannot use them, nor give one more rights.
CREATE TABLE platform.access_keys (
  name TEXT PRIMARY KEY,
  access_key TEXT NOT NULL UNIQUE,
  sealed TEXT NOT NULL
);
