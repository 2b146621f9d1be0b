-- Rows of every kind that a write can change, for the full file system
-- tests: a data set of three members and their value rows, the value row of
-- IED1LD0/MMXU1$MX$TotW$mag$f, a terminal, an access entry and a topology node.
INSERT INTO DataSetSub (fcdaName, iedName, dsName) VALUES
  ('FAULTLD0/GGIO1$ST$Ind1$stVal', 'FAULT', 'dsFault'),
  ('FAULTLD0/GGIO1$ST$Ind2$stVal', 'FAULT', 'dsFault'),
  ('FAULTLD0/GGIO1$ST$Ind3$stVal', 'FAULT', 'dsFault');
INSERT INTO DAValue (hashID, type, value, quality, timestamp)
  SELECT rowkey(fcdaName), 1, 0, 0, 0 FROM DataSetSub
  UNION ALL SELECT rowkey('IED1LD0/MMXU1$MX$TotW$mag$f'), 1, 0, 0, 0;
INSERT INTO LTUInfor (id, name, addr, state) VALUES (1, 'T1', '10.0.0.1:2404', 0);
INSERT INTO ltu_access_list (date_time, deviceid, accessmodel) VALUES ('2024-05-01', 'dev1', 1);
INSERT INTO TopoInfor (id, type, m_rln, name) VALUES (1, 'switch', 'QS1', 'QS1');
