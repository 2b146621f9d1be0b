-- Configuration store: processes, scales, message routes, point mappings and
-- per-process settings. The gateway's provisioning fills it.

-- In the write-ahead log, readers never wait for provisioning or for the
-- settings writer.
PRAGMA journal_mode=WAL;

CREATE TABLE IF NOT EXISTS ProcessConfig (
  no              INTEGER NOT NULL,
  processName     TEXT NOT NULL DEFAULT '',
  processDescribe TEXT NOT NULL DEFAULT ''
);
-- A process has one number and one name: qvtool process add relies on these
-- keys to make a repeated command harmless.
DROP INDEX IF EXISTS ProcessConfig_name;
CREATE UNIQUE INDEX IF NOT EXISTS ProcessConfig_no ON ProcessConfig(no);
CREATE UNIQUE INDEX IF NOT EXISTS ProcessConfig_processName ON ProcessConfig(processName);

CREATE TABLE IF NOT EXISTS ScaleConfig (
  no           INTEGER NOT NULL,
  name         TEXT NOT NULL DEFAULT '',
  maxValue     REAL NOT NULL DEFAULT 0,
  minValue     REAL NOT NULL DEFAULT 0,
  userMaxValue REAL NOT NULL DEFAULT 0,
  userMinValue REAL NOT NULL DEFAULT 0
);

-- msgType is a bit mask of message kinds: kind k is bit k-1.
CREATE TABLE IF NOT EXISTS ProcessMsgAssociation (
  sendProcessNo INTEGER NOT NULL,
  recvProcessNo INTEGER NOT NULL,
  msgType       INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX IF NOT EXISTS ProcessMsgAssociation_sender ON ProcessMsgAssociation(sendProcessNo);
-- The same route twice is one route. Two routes between the same processes
-- with different masks stay allowed (each delivers its kinds). The key
-- starts with the receiver, so a sender's routes are still read through the
-- index above, in the order they were written.
CREATE UNIQUE INDEX IF NOT EXISTS ProcessMsgAssociation_route
  ON ProcessMsgAssociation(recvProcessNo, sendProcessNo, msgType);

CREATE TABLE IF NOT EXISTS DeviceModelAssociation (
  associateName TEXT NOT NULL DEFAULT '',
  lineNo        INTEGER NOT NULL DEFAULT 0,
  dataType      INTEGER NOT NULL DEFAULT 0,
  dataIndex     INTEGER NOT NULL DEFAULT 0,
  daName        TEXT NOT NULL DEFAULT '',
  type          INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE IF NOT EXISTS ProcessDataAssociation (
  processNo     INTEGER NOT NULL,
  associateName TEXT NOT NULL DEFAULT '',
  dataType      INTEGER NOT NULL DEFAULT 0,
  dataIndex     INTEGER NOT NULL DEFAULT 0,
  daName        TEXT NOT NULL DEFAULT '',
  scaleNo       INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE IF NOT EXISTS ProcessMisc (
  processNo INTEGER NOT NULL,
  key       TEXT NOT NULL DEFAULT '',
  value     TEXT NOT NULL DEFAULT '',
  descripe  TEXT NOT NULL DEFAULT ''
);
