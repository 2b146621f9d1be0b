-- Three data sets; members of two IED1 sets and one IED2 set, one of them a
-- whole-DO member with an empty daName; attributes of both IEDs (only the
-- first one keyed for the lookup by name); value rows for IED1's members.
insert into DataSet values ('IED1', 'dsA', 'LD0', 'analog values'), ('IED1', 'dsB', 'LD0', ''),
                           ('IED2', 'dsA', 'MEAS', 'other IED');
insert into DataSetSub values
    ('IED1LD0/MMXU1$MX$TotW$mag$f', 'IED1', 'dsA', 'LD0', 'MMXU', '1', 'TotW', 'mag.f', 'MX'),
    ('IED1LD0/MMXU1$MX$Hz$mag$f', 'IED1', 'dsA', 'LD0', 'MMXU', '1', 'Hz', 'mag.f', 'MX'),
    ('IED1LD0/GGIO1$ST$Ind1$stVal', 'IED1', 'dsA', 'LD0', 'GGIO', '1', 'Ind1', 'stVal', 'ST'),
    ('IED1LD0/GGIO1$ST$Ind2$stVal', 'IED1', 'dsB', 'LD0', 'GGIO', '1', 'Ind2', 'stVal', 'ST'),
    ('IED1LD0/LPHD1$ST$PhyHealth', 'IED1', 'dsB', 'LD0', 'LPHD', '1', 'PhyHealth', '', 'ST'),
    ('IED2LD0/MMXU1$MX$TotW$mag$f', 'IED2', 'dsA', 'LD0', 'MMXU', '1', 'TotW', 'mag.f', 'MX'),
    ('IED2MEAS/MMXU2$MX$TotW$mag$f', 'IED2', 'dsA', 'MEAS', 'MMXU', '2', 'TotW', 'mag.f', 'MX');
insert into DA values
    ('IED1LD0/MMXU1$MX$TotW$mag$f', 'IED1', 'LD0', 'MMXU1', 'TotW', 'MX', '0.5', 'FLOAT32',
     'total active power', rowkey('IED1LD0/MMXU1$MX$TotW$mag$f')),
    ('IED1LD0/MMXU1$MX$Hz$mag$f', 'IED1', 'LD0', 'MMXU1', 'Hz', 'MX', '', 'FLOAT32', '', 0),
    ('IED1LD0/MMXU1$CF$TotW$units$SIUnit', 'IED1', 'LD0', 'MMXU1', 'TotW', 'CF', '62', 'Enum', '', 0),
    ('IED1LD0/GGIO1$ST$Ind1$stVal', 'IED1', 'LD0', 'GGIO1', 'Ind1', 'ST', '', 'BOOLEAN', '', 0),
    ('IED1MEAS/MMXU1$MX$TotW$mag$f', 'IED1', 'MEAS', 'MMXU1', 'TotW', 'MX', '', 'FLOAT32', '', 0),
    ('IED2LD0/MMXU1$MX$TotW$mag$f', 'IED2', 'LD0', 'MMXU1', 'TotW', 'MX', '', 'FLOAT32', '', 0),
    ('IED1LD0/LLN0', 'IED1', 'LD0', 'LLN0', '', '', '', '', '', 0);
insert into DAValue select rowkey(fcdaName), 1, 0, 0, 0 from DataSetSub where iedName = 'IED1';
