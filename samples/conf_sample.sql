-- A small gateway's configuration, to load after schema/conf.sql.
-- Acquisition reads a meter and the breaker, the IEC 104 converter serves
-- them to the control centre, control operates the switch; "qvtool watch"
-- only listens. The daName texts are references of the sample feeder
-- terminal model (IED QVFTU1, samples/feeder_terminal.cid).

INSERT INTO ProcessConfig (no, processName, processDescribe) VALUES
  (1, 'qvacq', 'data acquisition'),
  (2, 'qv104 -p 2404', 'IEC 60870-5-104 converter'),
  (3, 'qvctrl', 'switch control'),
  (4, 'qvtool watch', 'message monitor');

-- Raw range first, then the range the user sees.
INSERT INTO ScaleConfig (no, name, maxValue, minValue, userMaxValue, userMinValue) VALUES
  (1, 'active power', 32767, -32768, 10000.0, -10000.0),
  (2, 'phase voltage', 65535, 0, 13.2, 0.0),
  (3, 'unity', 1, 0, 1, 0);

-- msgType bits: kind k is bit k-1. SOE (kind 2) 0x2, SBODOSAVEINFO (4) 0x8,
-- GENERALMSG (5) 0x10, SBOCTRL (6) 0x20, SBOCTRLRET (7) 0x40.
INSERT INTO ProcessMsgAssociation (sendProcessNo, recvProcessNo, msgType) VALUES
  (1, 2, 18),   -- acquisition -> 104: SOE | GENERALMSG
  (1, 4, 2),    -- acquisition -> monitor: SOE
  (2, 3, 32),   -- 104 -> control: SBOCTRL
  (3, 2, 64),   -- control -> 104: SBOCTRLRET
  (3, 1, 8);    -- control -> acquisition: SBODOSAVEINFO

-- Data types: 1 analog, 2 digital input, 3 control, 4 energy, 5 alarm.
-- Both meter lines deliver digital input 1, so type 2 has 3 rows and 2 indexes.
INSERT INTO DeviceModelAssociation (associateName, lineNo, dataType, dataIndex, daName, type) VALUES
  ('meterTotW', 1, 1, 1, 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f', 1),
  ('meterUa', 1, 1, 2, 'QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f', 1),
  ('breakerPos', 1, 2, 1, 'QVFTU1CTRL/XCBR1$ST$Pos$stVal', 3),
  ('breakerPosLine2', 2, 2, 1, 'QVFTU1CTRL/XCBR1$ST$Pos$stVal', 3),
  ('doorContact', 1, 2, 2, 'QVFTU1LD0/GGIO1$ST$Ind1$stVal', 2),
  ('switchPos', 1, 3, 1, 'QVFTU1CTRL/CSWI1$ST$Pos$stVal', 4),
  ('meterTotWh', 1, 4, 1, 'QVFTU1MEAS/MMTR1$ST$TotWh$actVal', 5),
  ('cabinetAlarm', 2, 5, 1, 'QVFTU1LD0/GGIO1$ST$Alm$stVal', 7);

-- The 104 converter indexes its points by information object address.
INSERT INTO ProcessDataAssociation (processNo, associateName, dataType, dataIndex, daName, scaleNo) VALUES
  (1, 'TotW', 1, 1, 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f', 1),
  (1, 'Ua', 1, 2, 'QVFTU1MEAS/MMXU1$MX$PhV$phsA$cVal$mag$f', 2),
  (1, 'BreakerPos', 2, 1, 'QVFTU1CTRL/XCBR1$ST$Pos$stVal', 3),
  (1, 'Ind1', 2, 2, 'QVFTU1LD0/GGIO1$ST$Ind1$stVal', 3),
  (1, 'TotWh', 4, 1, 'QVFTU1MEAS/MMTR1$ST$TotWh$actVal', 3),
  (2, 'TotW', 1, 16385, 'QVFTU1MEAS/MMXU1$MX$TotW$mag$f', 1),
  (2, 'BreakerPos', 2, 1, 'QVFTU1CTRL/XCBR1$ST$Pos$stVal', 3),
  (2, 'SwitchCmd', 3, 24577, 'QVFTU1CTRL/CSWI1$ST$Pos$stVal', 3);

INSERT INTO ProcessMisc (processNo, key, value, descripe) VALUES
  (1, 'period', '1000', 'polling period in ms'),
  (1, 'serialPort', '/dev/ttyS1', 'meter line'),
  (2, 'port', '2404', 'listening TCP port'),
  (2, 't1', '15', 'confirmation timeout in s'),
  (3, 'selectTimeout', '30', 'select before operate timeout in s');
