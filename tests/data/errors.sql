-- The configuration of the error tests: a process known only by the name it
-- gives itself, sending SOE records (kind bit 2) to process 6.
insert into ProcessConfig(no, processName) values (3, 'acq given name'), (6, 'receiver');
insert into ProcessMsgAssociation values (3, 6, 2);
