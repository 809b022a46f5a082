-- A node's lease belongs to one process, and what the nodes tell each other is dated by the clock of this server.

-- A process finds the lease that it was given by a text that no other has, even when it never got the answer, or when
-- the database was set back to an earlier time. The start of the machine tells an earlier run on the same data folder
-- from a machine that is its copy.
ALTER TABLE platform.nodes ADD COLUMN process text COLLATE "C" NOT NULL DEFAULT '';
ALTER TABLE platform.nodes ADD COLUMN machine_start text COLLATE "C" NOT NULL DEFAULT '';

-- A refusal because of the lease has a code of its own: it says nothing about what was to be written.
DROP FUNCTION platform.begin_write(text, bigint);
CREATE FUNCTION platform.begin_write(writer text, writing_process text) RETURNS void LANGUAGE plpgsql AS $$
BEGIN
  -- A node that stands still in the middle of a transaction must not keep the others waiting for long.
  PERFORM set_config('idle_in_transaction_session_timeout', '3000', true);
  PERFORM pg_advisory_xact_lock(1413565779, 2);
  IF NOT EXISTS (SELECT 1 FROM platform.nodes WHERE name = writer AND process = writing_process
                 AND seen_at > clock_timestamp() - interval '10 seconds') THEN
    RAISE EXCEPTION 'the lease of node % has ended', writer USING ERRCODE = 'TNL01';
  END IF;
  PERFORM set_config('tansy.log_changes', 'on', true);
  PERFORM set_config('tansy.node', writer, true);
END $$;

-- Ends the transactions whose process has said nothing for three seconds while it keeps the other nodes out. The server
-- does so by itself only for a process that stands still between two groups of statements, not within one.
CREATE FUNCTION platform.end_standing_writers() RETURNS bigint LANGUAGE sql AS $$
  SELECT count(*) FILTER (WHERE is_ended) FROM (
    SELECT pg_terminate_backend(a.pid) AS is_ended
    FROM pg_locks l JOIN pg_stat_activity a ON a.pid = l.pid
    WHERE l.locktype = 'advisory' AND l.classid = 1413565779 AND l.objid = 2 AND l.objsubid = 2 AND l.granted
      AND l.database = (SELECT oid FROM pg_database WHERE datname = current_database())
      AND a.wait_event = 'ClientRead' AND a.state_change < clock_timestamp() - interval '3 seconds') AS standing
$$;

-- An upload needs its bucket, as an object does.
CREATE TRIGGER local_upload_bucket BEFORE INSERT ON platform.local_upload
FOR EACH ROW WHEN (current_setting('tansy.node', true) <> '') EXECUTE FUNCTION platform.expect_bucket();

-- By these times it is known how long an upload has been left alone, so the clock of a node must not decide them.
CREATE FUNCTION platform.date_by_this_server() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  NEW.update_time := to_char(clock_timestamp() AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS');
  RETURN NEW;
END $$;
CREATE TRIGGER local_upload_dated BEFORE INSERT OR UPDATE ON platform.local_upload
FOR EACH ROW WHEN (current_setting('tansy.node', true) <> '') EXECUTE FUNCTION platform.date_by_this_server();
CREATE TRIGGER local_object_task_dated BEFORE INSERT OR UPDATE ON platform.local_object_task
FOR EACH ROW WHEN (current_setting('tansy.node', true) <> '') EXECUTE FUNCTION platform.date_by_this_server();
