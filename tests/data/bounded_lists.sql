-- Two or more rows for every list of the real-time store.
insert into DataSet values ('IED1', 'dsA', 'LD0', 'a'), ('IED1', 'dsB', 'LD0', 'b');
insert into DA values
    ('IED1LD0/MMXU1$MX$TotW$mag$f', 'IED1', 'LD0', 'MMXU1', 'TotW', 'MX', '', 'FLOAT32', '', 1),
    ('IED1LD0/MMXU1$MX$Hz$mag$f', 'IED1', 'LD0', 'MMXU1', 'Hz', 'MX', '', 'FLOAT32', '', 2);
insert into ltu_access_list values ('t', 'D1', 1, '', '', ''), ('t', 'D2', 2, '', '', '');
insert into LTUInfor values (1, '', '', '', '', 'LTU-1', '', 0, 0, ''),
                            (2, '', '', '', '', 'LTU-2', '', 0, 0, '');
insert into TopoInfor values (1, 'switch', 'LN_A', 'LN_A', 'bus1', 'bus2', 0, '', ''),
                             (2, 'switch', 'LN_B', 'LN_B', 'bus1', 'bus2', 0, '', ''),
                             (3, 'switch', 'LN_C', 'LN_C', 'bus1', 'bus2', 0, '', '');
-- Members Ind4, Ind1 and Ind3 of IED1's data set dsV, each with the value n
-- and the quality 10 n.
with n(i) as (values (4), (1), (3))
insert into DataSetSub(fcdaName, iedName, dsName)
select 'IED1LD0/GGIO1$ST$Ind' || i || '$stVal', 'IED1', 'dsV' from n;
with n(i) as (values (4), (1), (3))
insert into DAValue select rowkey('IED1LD0/GGIO1$ST$Ind' || i || '$stVal'), 1, i, 10 * i, 0 from n;
