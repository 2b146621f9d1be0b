-- Four writers' rows for the change feed tests: each writer W0..W3 has a data
-- set `ds` of three members and four rows of its own for lists and single
-- saves, every one with a value row.
insert into DataSet values ('W0', 'ds', 'LD0', 'feed writer 0'),
    ('W1', 'ds', 'LD0', 'feed writer 1'),
    ('W2', 'ds', 'LD0', 'feed writer 2'),
    ('W3', 'ds', 'LD0', 'feed writer 3');
insert into DataSetSub values
    ('W0LD0/GGIO1$ST$Ind1$stVal', 'W0', 'ds', 'LD0', 'GGIO', '1', 'Ind1', 'stVal', 'ST'),
    ('W0LD0/GGIO1$ST$Ind2$stVal', 'W0', 'ds', 'LD0', 'GGIO', '1', 'Ind2', 'stVal', 'ST'),
    ('W0LD0/GGIO1$ST$Ind3$stVal', 'W0', 'ds', 'LD0', 'GGIO', '1', 'Ind3', 'stVal', 'ST'),
    ('W1LD0/GGIO1$ST$Ind1$stVal', 'W1', 'ds', 'LD0', 'GGIO', '1', 'Ind1', 'stVal', 'ST'),
    ('W1LD0/GGIO1$ST$Ind2$stVal', 'W1', 'ds', 'LD0', 'GGIO', '1', 'Ind2', 'stVal', 'ST'),
    ('W1LD0/GGIO1$ST$Ind3$stVal', 'W1', 'ds', 'LD0', 'GGIO', '1', 'Ind3', 'stVal', 'ST'),
    ('W2LD0/GGIO1$ST$Ind1$stVal', 'W2', 'ds', 'LD0', 'GGIO', '1', 'Ind1', 'stVal', 'ST'),
    ('W2LD0/GGIO1$ST$Ind2$stVal', 'W2', 'ds', 'LD0', 'GGIO', '1', 'Ind2', 'stVal', 'ST'),
    ('W2LD0/GGIO1$ST$Ind3$stVal', 'W2', 'ds', 'LD0', 'GGIO', '1', 'Ind3', 'stVal', 'ST'),
    ('W3LD0/GGIO1$ST$Ind1$stVal', 'W3', 'ds', 'LD0', 'GGIO', '1', 'Ind1', 'stVal', 'ST'),
    ('W3LD0/GGIO1$ST$Ind2$stVal', 'W3', 'ds', 'LD0', 'GGIO', '1', 'Ind2', 'stVal', 'ST'),
    ('W3LD0/GGIO1$ST$Ind3$stVal', 'W3', 'ds', 'LD0', 'GGIO', '1', 'Ind3', 'stVal', 'ST');
insert into DAValue select rowkey(fcdaName), 1, 0, 0, 0 from DataSetSub;
insert into DAValue values
    (rowkey('W0LD0/MMXU1$MX$A1$mag$f'), 1, 0, 0, 0),
    (rowkey('W0LD0/MMXU1$MX$A2$mag$f'), 1, 0, 0, 0),
    (rowkey('W0LD0/MMXU1$MX$A3$mag$f'), 1, 0, 0, 0),
    (rowkey('W0LD0/MMXU1$MX$A4$mag$f'), 1, 0, 0, 0),
    (rowkey('W1LD0/MMXU1$MX$A1$mag$f'), 1, 0, 0, 0),
    (rowkey('W1LD0/MMXU1$MX$A2$mag$f'), 1, 0, 0, 0),
    (rowkey('W1LD0/MMXU1$MX$A3$mag$f'), 1, 0, 0, 0),
    (rowkey('W1LD0/MMXU1$MX$A4$mag$f'), 1, 0, 0, 0),
    (rowkey('W2LD0/MMXU1$MX$A1$mag$f'), 1, 0, 0, 0),
    (rowkey('W2LD0/MMXU1$MX$A2$mag$f'), 1, 0, 0, 0),
    (rowkey('W2LD0/MMXU1$MX$A3$mag$f'), 1, 0, 0, 0),
    (rowkey('W2LD0/MMXU1$MX$A4$mag$f'), 1, 0, 0, 0),
    (rowkey('W3LD0/MMXU1$MX$A1$mag$f'), 1, 0, 0, 0),
    (rowkey('W3LD0/MMXU1$MX$A2$mag$f'), 1, 0, 0, 0),
    (rowkey('W3LD0/MMXU1$MX$A3$mag$f'), 1, 0, 0, 0),
    (rowkey('W3LD0/MMXU1$MX$A4$mag$f'), 1, 0, 0, 0);
