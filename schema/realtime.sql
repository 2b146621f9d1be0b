-- Real-time store: device model, live values, terminals and feeder topology.
-- Text columns are never NULL: readers copy them into fixed record fields.

-- Write-ahead log: readers never wait for a writer (the model load included),
-- and a transaction costs SQLite far fewer file locks.
PRAGMA journal_mode=WAL;

CREATE TABLE IF NOT EXISTS DataSet (
  iedName TEXT NOT NULL DEFAULT '',
  dsName  TEXT NOT NULL DEFAULT '',
  ldInst  TEXT NOT NULL DEFAULT '',
  dsDesc  TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS DataSet_name ON DataSet(iedName, dsName);

CREATE TABLE IF NOT EXISTS DataSetSub (
  fcdaName TEXT NOT NULL DEFAULT '',
  iedName  TEXT NOT NULL DEFAULT '',
  dsName   TEXT NOT NULL DEFAULT '',
  ldInst   TEXT NOT NULL DEFAULT '',
  lnClass  TEXT NOT NULL DEFAULT '',
  lnInst   TEXT NOT NULL DEFAULT '',
  doName   TEXT NOT NULL DEFAULT '',
  daName   TEXT NOT NULL DEFAULT '',
  fc       TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS DataSetSub_fcdaName ON DataSetSub(fcdaName);
CREATE INDEX IF NOT EXISTS DataSetSub_dataSet ON DataSetSub(iedName, dsName);

CREATE TABLE IF NOT EXISTS DA (
  daName    TEXT NOT NULL DEFAULT '',
  iedName   TEXT NOT NULL DEFAULT '',
  ldName    TEXT NOT NULL DEFAULT '',
  lnName    TEXT NOT NULL DEFAULT '',
  doName    TEXT NOT NULL DEFAULT '',
  fcName    TEXT NOT NULL DEFAULT '',
  value     TEXT NOT NULL DEFAULT '',
  valueType TEXT NOT NULL DEFAULT '',
  doDesc    TEXT NOT NULL DEFAULT '',
  hashID    INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS DA_hashID ON DA(hashID);

-- One live value per classified data attribute, keyed by RSHash of its reference.
CREATE TABLE IF NOT EXISTS DAValue (
  hashID    INTEGER NOT NULL,
  type      REAL    NOT NULL DEFAULT 0,
  value     REAL    NOT NULL DEFAULT 0,
  quality   INTEGER NOT NULL DEFAULT 0,
  timestamp REAL    NOT NULL DEFAULT 0
);
CREATE UNIQUE INDEX IF NOT EXISTS DAValue_hashID ON DAValue(hashID);

-- The insert statements of the three tables below name no columns: the
-- column order is part of the interface.
CREATE TABLE IF NOT EXISTS ltu_access_list (
  date_time   TEXT NOT NULL DEFAULT '',
  deviceid    TEXT NOT NULL DEFAULT '',
  accessmodel INTEGER NOT NULL DEFAULT 0,
  desc        TEXT NOT NULL DEFAULT '',
  key         TEXT NOT NULL DEFAULT '',
  version     TEXT NOT NULL DEFAULT ''
);

CREATE TABLE IF NOT EXISTS LTUInfor (
  id                 INTEGER NOT NULL DEFAULT 0,
  QVsoftware_version TEXT NOT NULL DEFAULT '',
  QVhardware_version TEXT NOT NULL DEFAULT '',
  SGsoftware_version TEXT NOT NULL DEFAULT '',
  SGhardware_version TEXT NOT NULL DEFAULT '',
  name               TEXT NOT NULL DEFAULT '',
  addr               TEXT NOT NULL DEFAULT '',
  failedcount        INTEGER NOT NULL DEFAULT 0,
  state              INTEGER NOT NULL DEFAULT 0,
  desc               TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS LTUInfor_name ON LTUInfor(name);

CREATE TABLE IF NOT EXISTS TopoInfor (
  id         INTEGER NOT NULL DEFAULT 0,
  type       TEXT NOT NULL DEFAULT '',
  m_rln      TEXT NOT NULL DEFAULT '',
  name       TEXT NOT NULL DEFAULT '',
  l_link     TEXT NOT NULL DEFAULT '',
  r_link     TEXT NOT NULL DEFAULT '',
  power_flag INTEGER NOT NULL DEFAULT 0,
  iedName    TEXT NOT NULL DEFAULT '',
  substation TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS TopoInfor_m_rln ON TopoInfor(m_rln);
