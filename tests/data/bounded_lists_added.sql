-- Two rows that another process adds after the count, for each bounded list,
-- under the list's name. Added data set members are IED1's data set dsV's,
-- each with the value n of its Ind n and the quality 10 n.
-- data sets
insert into DataSet values ('IED2', 'dsC', 'LD0', 'c'), ('IED2', 'dsD', 'LD0', 'd');
-- data set members
with n(i) as (values (5), (7))
insert into DataSetSub(fcdaName, iedName, dsName)
select 'IED1LD0/GGIO1$ST$Ind' || i || '$stVal', 'IED1', 'dsV' from n;
with n(i) as (values (5), (7))
insert into DAValue select rowkey('IED1LD0/GGIO1$ST$Ind' || i || '$stVal'), 1, i, 10 * i, 0 from n;
-- data attributes
insert into DA values
    ('IED1LD0/MMXU1$MX$A$mag$f', 'IED1', 'LD0', 'MMXU1', 'A', 'MX', '', 'FLOAT32', '', 3),
    ('IED1LD0/MMXU1$MX$V$mag$f', 'IED1', 'LD0', 'MMXU1', 'V', 'MX', '', 'FLOAT32', '', 4);
-- access list
insert into ltu_access_list values ('t', 'D3', 3, '', '', ''), ('t', 'D4', 4, '', '', '');
-- terminals
insert into LTUInfor values (3, '', '', '', '', 'LTU-3', '', 0, 0, ''),
                            (4, '', '', '', '', 'LTU-4', '', 0, 0, '');
-- topology
insert into TopoInfor values (4, 'switch', 'LN_X', 'LN_X', 'busX', 'busY', 0, '', ''),
                             (5, 'switch', 'LN_Y', 'LN_Y', 'busX', 'busY', 0, '', '');
-- left neighbours
insert into TopoInfor values (6, 'switch', 'LN_L1', 'LN_L1', 'bus1', '-', 0, '', ''),
                             (7, 'switch', 'LN_L2', 'LN_L2', 'bus1', '-', 0, '', '');
-- right neighbours
insert into TopoInfor values (8, 'switch', 'LN_R1', 'LN_R1', '-', 'bus2', 0, '', ''),
                             (9, 'switch', 'LN_R2', 'LN_R2', '-', 'bus2', 0, '', '');
-- processes
insert into ProcessConfig values (5, 'qvx', 'x'), (6, 'qvy', 'y');
-- message routes
insert into ProcessMsgAssociation values (3, 4, 1), (3, 1, 2);
-- device points
insert into DeviceModelAssociation values ('dx', 1, 6, 1, 'd', 0), ('dy', 1, 6, 2, 'd', 0);
-- device points of a type
insert into DeviceModelAssociation values ('dz', 1, 2, 3, 'd', 0), ('dw', 1, 2, 4, 'd', 0);
-- device points of a type and index
insert into DeviceModelAssociation values ('dv', 3, 2, 1, 'd', 0), ('du', 4, 2, 1, 'd', 0);
-- process points
insert into ProcessDataAssociation values (1, 'P1', 5, 1, 'd', 1), (1, 'P2', 5, 2, 'd', 1);
-- process points of a type
insert into ProcessDataAssociation values (1, 'P3', 2, 3, 'd', 1), (1, 'P4', 2, 4, 'd', 1);
-- data set values
with n(i) as (values (2), (6))
insert into DataSetSub(fcdaName, iedName, dsName)
select 'IED1LD0/GGIO1$ST$Ind' || i || '$stVal', 'IED1', 'dsV' from n;
with n(i) as (values (2), (6))
insert into DAValue select rowkey('IED1LD0/GGIO1$ST$Ind' || i || '$stVal'), 1, i, 10 * i, 0 from n;
