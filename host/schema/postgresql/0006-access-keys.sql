-- Further keys of the S3 protocol, which operators make and remove while the server runs. What a key may do, and its
-- secret, are in one text that is sealed with a key from outside of the database: who has a copy of the database alone
-- cannot use them, nor give one more rights.
CREATE TABLE platform.access_keys (
  name text COLLATE "C" PRIMARY KEY,
  access_key text COLLATE "C" NOT NULL UNIQUE,
  sealed text NOT NULL
);
