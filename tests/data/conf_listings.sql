-- Rows for the configuration listings, over the sample configuration: texts
-- that JSON must escape, fractional bounds, and a setting whose process is
-- not configured.
INSERT INTO DeviceModelAssociation (associateName, lineNo, dataType, dataIndex, daName, type) VALUES
  ('meter "L3"', 3, 1, 3, 'QVFTU1MEAS/MMXU1$MX$PhV$phsC$cVal$mag$f', 1);
INSERT INTO ScaleConfig (no, name, maxValue, minValue, userMaxValue, userMinValue) VALUES
  (7, 'tap\position', 0.5, -0.25, 1000000.0, -0.001);
INSERT INTO ProcessMisc (processNo, key, value, descripe) VALUES
  (9, 'orphan', 'a	b', 'process 9 is gone');
