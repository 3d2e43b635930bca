// The four deliveries an instruction line can ask for.
#pragma once

// 0 delivered, -1 failed (logged).
int deliverMaildir(const char *messagePath, const char *maildir);
int deliverMbox(const char *messagePath, const char *mboxPath, const char *sender);
int forwardMessage(const char *messagePath, const char *sender, const char *destination);

// A DeliveryResult: 0, 77, 99, 100 or 111.
int deliverProgram(const char *messagePath, const char *command, const char *workDir);
