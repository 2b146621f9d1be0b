-- Descriptions that CSV must quote: commas, quotes, CR and LF, and a field
-- of quotes alone.
insert into DataSet values('AWK1','dsAwk','LD0','feeder 1, "north", bay
two');
insert into DataSet values('AWK1','dsQuote','LD0','""');
insert into DA values('AWK1LD0/MMXU1$MX$TotW$mag$f','AWK1','LD0','MMXU1','TotW','MX','1,5',
  'FLOAT32','total "active" power,' || char(13) || char(10) || 'three phases',0);
insert into DA values('AWK1LD0/MMXU1$MX$Hz$mag$f','AWK1','LD0','MMXU1','Hz','MX','','FLOAT32',
  'frequency',0);
insert into DataSetSub values('AWK1LD0/MMXU1$MX$TotW$mag$f','AWK1','dsAwk','LD0','MMXU','1',
  'TotW','mag.f','MX');
