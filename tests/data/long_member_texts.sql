-- One member of data set dsL whose texts are longer than their fields (300
-- x's for the reference and the IED name) or NULL; the table is made anew
-- without types or limits.
drop table DataSetSub;
create table DataSetSub(fcdaName, iedName, dsName, ldInst, lnClass, lnInst, doName, daName, fc);
insert into DataSetSub values (printf('%.*c', 300, 'x'), printf('%.*c', 300, 'x'), 'dsL', NULL,
                               'ABCDEFG', '123456789', 'Do', 'Da', 'MXY');
